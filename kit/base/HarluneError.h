#pragma once

#include <exception>
#include <string>

namespace harlune {

/// The one recoverable error of the base, codec and file layers. `what()` is the text the user
/// reads. Cancelling is an error value too (`cancelled`), which callers never show.
class HarluneError : public std::exception {
public:
    enum class Kind { unsupportedFormat, decodeFailed, encodeFailed, codecUnavailable, cancelled };

    static HarluneError unsupportedFormat(std::string detail) {
        return {Kind::unsupportedFormat, std::move(detail)};
    }
    static HarluneError decodeFailed(std::string detail) { return {Kind::decodeFailed, std::move(detail)}; }
    static HarluneError encodeFailed(std::string detail) { return {Kind::encodeFailed, std::move(detail)}; }
    static HarluneError codecUnavailable(std::string detail) {
        return {Kind::codecUnavailable, std::move(detail)};
    }
    static HarluneError cancelled() { return {Kind::cancelled, {}}; }

    Kind kind() const noexcept { return kind_; }
    /// The string the case holds (empty for `cancelled`).
    const std::string& detail() const noexcept { return detail_; }
    bool isCancelled() const noexcept { return kind_ == Kind::cancelled; }

    /// The localised description: "Couldn’t read the audio: …" and so on.
    const std::string& localizedDescription() const noexcept { return text_; }
    const char* what() const noexcept override { return text_.c_str(); }

    friend bool operator==(const HarluneError& a, const HarluneError& b) {
        return a.kind_ == b.kind_ && a.detail_ == b.detail_;
    }

private:
    HarluneError(Kind kind, std::string detail);

    Kind kind_;
    std::string detail_;
    std::string text_;
};

} // namespace harlune
