#pragma once

#include "core/AudioContent.h"

#include <cstdint>
#include <optional>

namespace harlune {

/// Audio copied in one document and pasted in any other of the same application. It holds the
/// copied content itself, at its own rate and channel count: the blocks are shared, so a copy
/// costs no second set of samples, and what was copied outlives the document it came from.
/// The application makes one and gives it to every model; main thread only.
class AudioClipboard {
public:
    /// Absent until the first copy.
    const std::optional<AudioContent>& content() const { return content_; }
    /// Grows by 1 with each copy, so that a menu can tell whether the clipboard changed.
    int64_t changeCount() const { return changeCount_; }

    void setContent(AudioContent content);

private:
    std::optional<AudioContent> content_;
    int64_t changeCount_ = 0;
};

} // namespace harlune
