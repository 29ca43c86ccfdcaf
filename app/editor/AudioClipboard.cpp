#include "editor/AudioClipboard.h"

namespace harlune {

void AudioClipboard::setContent(AudioContent content) {
    content_ = std::move(content);
    ++changeCount_;
}

} // namespace harlune
