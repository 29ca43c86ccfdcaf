#pragma once

#include <cstdint>

namespace harlune {

/// The model fields a drawing of the timeline can read; a change to one the last drawing read
/// makes the static layer stale.
enum class TimelineField : uint8_t {
    content,
    fileInfo,
    envelopes,
    envelopeTarget,
    selection,
    activeChannels,
    cursor,
    framesPerPoint,
    scrollFrame,
    viewWidth,
    amplitudeZoom,
    showLoudnessLane,
    loudnessLaneHeight,
    envelopeRangeDB,
    timeFormat,
    grid,
    showGrid,
    markers,
    contentLoudness,
    isAnalyzing,
    targetLUFS,
};

/// A small set of fields.
class TimelineFields {
public:
    void add(TimelineField field) { bits_ |= bit(field); }
    bool contains(TimelineField field) const { return (bits_ & bit(field)) != 0; }
    bool isEmpty() const { return bits_ == 0; }

private:
    static uint32_t bit(TimelineField field) { return uint32_t{1} << static_cast<unsigned>(field); }
    uint32_t bits_ = 0;
};

} // namespace harlune
