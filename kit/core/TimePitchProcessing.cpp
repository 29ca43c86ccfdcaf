#include "core/TimePitchProcessing.h"

#include "core/AudioContentBuilder.h"

namespace harlune {

AudioContent timePitched(const AudioContent& content, FrameRange range, double rate, double pitchCents,
                         TimePitch::Progress progress, TimePitch::Engine engine) {
    const FrameRange clamped = range.clamped(content.fullRange());
    if (clamped.isEmpty())
        return content;
    AudioContentBuilder builder(content.channelCount(), content.sampleRate());
    TimePitch::render(
        content, clamped, rate, pitchCents, progress, [&](ChunkViews chunk) { builder.append(chunk); },
        engine);
    AudioContent result = content;
    result.replaceSubrange(clamped, builder.build());
    return result;
}

} // namespace harlune
