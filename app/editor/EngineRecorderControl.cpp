#include "editor/EngineRecorderControl.h"

#include "editor/EditorModel.h"
#include "engine/SafetyFile.h"

namespace harlune {

namespace {
constexpr std::chrono::microseconds pollInterval{1'000'000 / 30};
} // namespace

EngineRecorderControl::EngineRecorderControl(std::shared_ptr<AudioInputDevice> device,
                                             Recorder::Options options, RepeatingTimerFactory timers)
    : recorder_(std::move(device), std::move(options)), timers_(std::move(timers)) {
    recorder_.setClient(this);
    recorder_.setChangeHandler([this] { followArming(); });
}

EngineRecorderControl::~EngineRecorderControl() {
    QObject::disconnect(keptConnection_);
    recorder_.setChangeHandler({});
    timer_.reset();
    // A take still running when the document closes is dropped with its model.
    recorder_.setClient(nullptr);
}

void EngineRecorderControl::setModel(QPointer<EditorModel> model) {
    QObject::disconnect(keptConnection_);
    model_ = std::move(model);
    if (model_)
        keptConnection_ = QObject::connect(model_.data(), &EditorModel::takeKept, [this] {
            if (pendingSafetyFile_)
                removeSafetyFile(*pendingSafetyFile_);
            pendingSafetyFile_.reset();
        });
}

void EngineRecorderControl::setMode(RecordMode mode) {
    if (mode_ == mode)
        return;
    mode_ = mode;
    Q_EMIT changed();
}

void EngineRecorderControl::followArming() {
    if (timers_) {
        if (recorder_.isArmed() && !timer_)
            timer_ = timers_(pollInterval, [this] { recorder_.poll(); });
        else if (!recorder_.isArmed())
            timer_.reset();
    }
    Q_EMIT changed();
}

void EngineRecorderControl::beginRecording(double sampleRate, int channelCount) {
    if (model_)
        model_->beginRecording(mode_, sampleRate, channelCount);
}

void EngineRecorderControl::updateLiveTake(const AudioContent& take) {
    if (model_)
        model_->updateLiveTake(take);
}

void EngineRecorderControl::finishRecording(std::optional<AudioContent> take) {
    pendingSafetyFile_ = recorder_.safetyPath();
    if (pendingSafetyFile_ && (!take || take->frameCount() == 0)) {
        removeSafetyFile(*pendingSafetyFile_); // nothing in it to keep
        pendingSafetyFile_.reset();
    }
    if (model_)
        model_->finishRecording(std::move(take));
}

} // namespace harlune
