#pragma once

#include "base/FrameRange.h"
#include "base/Uuid.h"

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <vector>

namespace harlune {

/// Gain envelopes: non-destructive volume curves in decibels over the content's frame axis,
/// applied at read time (`EnvelopedSource`) for playback, measurement and saving, and written
/// into the samples only when a document is saved. Between points the curve is straight in
/// decibels; beyond its ends it holds the end point's gain. Every edit that moves audio must
/// move the points with it (`adjusted`), and a change of rate rescales them (`scaled`).
///
/// All types here are plain values, handed to any thread as copies.

struct EnvelopePoint {
    /// Identity over drags; a fresh one at construction.
    Uuid id = Uuid::random();
    int64_t frame = 0;
    double gainDB = 0;

    EnvelopePoint() = default;
    /// Does not clamp.
    EnvelopePoint(int64_t atFrame, double gain) : frame(atFrame), gainDB(gain) {}

    friend bool operator==(const EnvelopePoint&, const EnvelopePoint&) = default;
};

class GainEnvelope {
public:
    /// A closed interval of gains in dB.
    struct DecibelRange {
        double lower;
        double upper;
    };
    /// The gains a point can hold.
    static constexpr DecibelRange gainRange{-60.0, 24.0};

    GainEnvelope() = default;
    /// Sorts the points stably by frame.
    explicit GainEnvelope(std::vector<EnvelopePoint> points);

    const std::vector<EnvelopePoint>& points() const { return points_; }

    /// No point with a gain of magnitude 1e-6 dB or more (no points at all included).
    bool isFlat() const;
    /// dB at a (fractional) frame: linear in dB between points, constant beyond the ends, 0 without points.
    double gainDB(double frame) const;
    /// Linear gains for `range` into `out` (room for `range.length()` floats). No allocation:
    /// safe on the audio thread.
    void fillLinearGains(FrameRange range, float* out) const;

    /// Adds a point (gain clamped to the gain range), replacing one at exactly that frame.
    /// Returns the new point's id.
    Uuid insert(int64_t frame, double gainDB);
    /// Moves a point (unknown ids are ignored) without letting it cross or meet a neighbour;
    /// the gain is clamped and stored.
    void move(const Uuid& id, std::optional<int64_t> toFrame, double gainDB);
    void remove(const Uuid& id);
    void removeAll() { points_.clear(); }

    /// Makes `range` editable as a flat stretch with ramps of `ramp` frames on each side that
    /// keep the rest of the curve as it was. Returns the ids of the points inside the range
    /// (ends included), in order. An empty range changes nothing.
    std::vector<Uuid> prepareSpan(FrameRange range, int64_t ramp);
    /// The curve moved with an edit that replaced `range` by `newLength` frames. Every point
    /// gets a fresh id.
    GainEnvelope adjusted(FrameRange afterReplacing, int64_t newLength) const;
    /// The curve for a change of sample rate by `ratio` (new rate / old rate); fresh ids.
    GainEnvelope scaled(double ratio) const;

    friend bool operator==(const GainEnvelope&, const GainEnvelope&) = default;

private:
    std::vector<EnvelopePoint> points_;
};

/// The master curve over all channels, optional curves per channel, and constant trims.
struct EnvelopeSet {
    GainEnvelope master;
    /// One per channel, or fewer: a channel without an entry has no curve of its own.
    std::vector<GainEnvelope> channels;
    /// Constant per-channel gain in dB, or fewer: a channel without an entry has 0 dB.
    std::vector<double> trimDB;

    EnvelopeSet() = default;
    EnvelopeSet(GainEnvelope masterEnvelope, std::vector<GainEnvelope> channelEnvelopes = {},
                std::vector<double> trims = {})
        : master(std::move(masterEnvelope)), channels(std::move(channelEnvelopes)), trimDB(std::move(trims)) {
    }

    bool isFlat() const;
    /// No points anywhere and no trim of magnitude 1e-6 dB or more.
    bool isEmpty() const;

    /// The master for an absent target, a channel's own curve, or an empty curve past the end.
    /// A negative channel is a programmer's error.
    const GainEnvelope& operator[](std::optional<int> target) const;
    /// Replaces the master (absent target) or a channel's curve, adding empty curves up to it.
    void set(std::optional<int> target, GainEnvelope envelope);
    /// The curve to edit in place, added (with empty ones before it) when past the end.
    GainEnvelope& edit(std::optional<int> target);

    /// dB; 0 past the end of `trimDB`.
    double trim(int channel) const;
    /// Makes `trimDB` hold `channelCount` entries (zeros when it did not), then sets a valid
    /// channel's trim, clamped to -24...24 dB.
    void setTrim(int channel, double value, int channelCount);

    /// Master plus the channel's own curve plus its trim, in dB.
    double gainDB(int channel, double frame) const;
    /// Linear gains of a channel for `range` into `into`; `scratch` is a second buffer of the same
    /// room. Both belong to the caller, so that the audio thread need not allocate.
    void fillLinearGains(int channel, FrameRange range, float* into, float* scratch) const;

    EnvelopeSet adjusted(FrameRange afterReplacing, int64_t newLength) const;
    EnvelopeSet scaled(double ratio) const;
    /// Keeps the master; keeps channel curves and trims only when they number exactly `channelCount`.
    EnvelopeSet fitted(int channelCount) const;

    friend bool operator==(const EnvelopeSet&, const EnvelopeSet&) = default;
};

// JSON: "id" (UUID string), "frame", "gainDB"; "points"; "master", "channels", "trimDB". All keys
// are required; a decoded envelope is sorted. Decoding throws nlohmann::json::exception.
void to_json(nlohmann::json& json, const EnvelopePoint& point);
void from_json(const nlohmann::json& json, EnvelopePoint& point);
void to_json(nlohmann::json& json, const GainEnvelope& envelope);
void from_json(const nlohmann::json& json, GainEnvelope& envelope);
void to_json(nlohmann::json& json, const EnvelopeSet& set);
void from_json(const nlohmann::json& json, EnvelopeSet& set);

} // namespace harlune
