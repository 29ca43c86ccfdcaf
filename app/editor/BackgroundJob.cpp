#include "editor/BackgroundJob.h"

namespace harlune {

BackgroundJob::BackgroundJob(QObject& owner, Timing timing, std::function<int64_t()> version)
    : owner_(&owner), timing_(timing), version_(std::move(version)) {}

BackgroundJob::~BackgroundJob() {
    cancel();
}

void BackgroundJob::cancel() {
    if (token_) {
        token_->cancel();
        token_.reset();
    }
}

void BackgroundJob::release(const std::shared_ptr<ProgressToken>& token) {
    if (token_ == token)
        token_.reset();
}

} // namespace harlune
