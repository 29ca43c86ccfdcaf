#include "CliSupport.h"

#include <algorithm>
#include <filesystem>
#include <unistd.h>

namespace harlune::cli {

namespace {

bool looksLikeOption(const std::string& argument) {
    return argument.size() > 1 && argument[0] == '-';
}

} // namespace

bool asksForHelp(std::span<const std::string> arguments) {
    for (const auto& argument : arguments) {
        if (argument == "--")
            return false;
        if (argument == "--help" || argument == "-h")
            return true;
    }
    return false;
}

bool ArgumentReader::next() {
    if (started_)
        ++index_;
    started_ = true;
    if (!optionsEnded_ && index_ < arguments_.size() && arguments_[index_] == "--") {
        optionsEnded_ = true;
        ++index_;
    }
    if (index_ >= arguments_.size())
        return false;
    currentIndex_ = index_;
    isOption_ = !optionsEnded_ && looksLikeOption(arguments_[index_]);
    return true;
}

const std::string& ArgumentReader::value() {
    if (index_ + 1 >= arguments_.size())
        throw UsageError{current() + " needs a value"};
    return arguments_[++index_];
}

bool ArgumentReader::takeFlag(std::string_view flag) {
    if (optionsEnded_ || index_ + 1 >= arguments_.size() || arguments_[index_ + 1] != flag)
        return false;
    ++index_;
    return true;
}

UsageError ArgumentReader::unknownOption() const {
    return cli::unknownOption(current());
}

UsageError unknownOption(const std::string& name) {
    std::string message = "unknown option " + name;
    std::error_code error;
    if (std::filesystem::exists(name, error))
        message += "; to open a file of that name, write -- " + name;
    return {message};
}

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
