#include "CliSupport.h"

#include <algorithm>
#include <unistd.h>

namespace harlune::cli {

void printError(std::string_view text) {
    std::fprintf(stderr, "harlune-cli: %.*s\n", static_cast<int>(text.size()), text.data());
}

ProgressBar::ProgressBar(std::string label)
    : label_(std::move(label)), enabled_(isatty(STDERR_FILENO) == 1) {}

ProgressBar::~ProgressBar() {
    if (enabled_ && lastShown_ >= 0)
        std::fprintf(stderr, "\r\033[K");
}

bool ProgressBar::update(double fraction) {
    if (!enabled_)
        return true;
    const int percent = static_cast<int>(std::clamp(fraction, 0.0, 1.0) * 100.0);
    if (percent == lastShown_)
        return true;
    lastShown_ = percent;
    constexpr int width = 30;
    const int filled = percent * width / 100;
    std::fprintf(stderr, "\r%s [%.*s%*s] %3d%%", label_.c_str(), filled, "##############################",
                 width - filled, "", percent);
    std::fflush(stderr);
    return true;
}

} // namespace harlune::cli
