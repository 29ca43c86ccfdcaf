#include "core/GainEnvelope.h"

#include "base/Clamped.h"
#include "base/Precondition.h"
#include "dsp/VectorMath.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace harlune {

namespace {

constexpr double flatThreshold = 1e-6;
constexpr double trimLimit = 24.0;
/// ln 10 / 20 as a float: dB times this is the natural exponent of the linear gain.
constexpr float decibelsToNepers = 0.115129255f;

double clampedGain(double gainDB) {
    return clamped(gainDB, GainEnvelope::gainRange.lower, GainEnvelope::gainRange.upper);
}

} // namespace

// GainEnvelope --------------------------------------------------------------------------------

GainEnvelope::GainEnvelope(std::vector<EnvelopePoint> points) : points_(std::move(points)) {
    std::stable_sort(points_.begin(), points_.end(),
                     [](const EnvelopePoint& a, const EnvelopePoint& b) { return a.frame < b.frame; });
}

bool GainEnvelope::isFlat() const {
    return std::none_of(points_.begin(), points_.end(),
                        [](const EnvelopePoint& p) { return std::abs(p.gainDB) >= flatThreshold; });
}

double GainEnvelope::gainDB(double frame) const {
    if (points_.empty())
        return 0;
    const auto& first = points_.front();
    const auto& last = points_.back();
    if (frame <= static_cast<double>(first.frame))
        return first.gainDB;
    if (frame >= static_cast<double>(last.frame))
        return last.gainDB;
    // The last point at or before `frame`; first.frame < frame < last.frame, so it is never the last.
    size_t lo = 0;
    size_t hi = points_.size() - 1;
    size_t mid = (points_.size() - 1) / 2;
    while (lo < hi) {
        if (static_cast<double>(points_[mid].frame) <= frame)
            lo = mid;
        else
            hi = mid - 1;
        mid = (lo + hi + 1) / 2;
    }
    const auto& a = points_[lo];
    const auto& b = points_[lo + 1];
    const double span = std::max<double>(static_cast<double>(b.frame - a.frame), 1.0);
    return a.gainDB + ((frame - static_cast<double>(a.frame)) / span) * (b.gainDB - a.gainDB);
}

void GainEnvelope::fillLinearGains(FrameRange range, float* out) const {
    if (range.isEmpty())
        return;
    if (points_.empty() || isFlat()) {
        vec::fill(out, range.length(), 1.0f);
        return;
    }
    const auto& first = points_.front();
    const auto& last = points_.back();
    // `next` is the first point after `f`; it only moves forward, so the walk searches once.
    auto next = std::upper_bound(points_.begin(), points_.end(), range.lower,
                                 [](int64_t f, const EnvelopePoint& p) { return f < p.frame; });
    for (int64_t f = range.lower; f < range.upper;) {
        int64_t end;
        float start;
        float step = 0;
        if (f < first.frame) {
            end = std::min(first.frame, range.upper);
            start = static_cast<float>(first.gainDB);
        } else if (f >= last.frame) {
            end = range.upper;
            start = static_cast<float>(last.gainDB);
        } else {
            while (next->frame <= f)
                ++next;
            end = std::min(next->frame, range.upper);
            start = static_cast<float>(gainDB(static_cast<double>(f)));
            if (end - f > 1)
                step = (static_cast<float>(gainDB(static_cast<double>(end))) - start) /
                       static_cast<float>(end - f);
        }
        const int64_t n = std::max<int64_t>(end - f, 1);
        vec::ramp(out + (f - range.lower), n, start, step);
        f += n;
    }
    vec::scale(out, range.length(), decibelsToNepers);
    vec::expInPlace(out, range.length());
}

Uuid GainEnvelope::insert(int64_t frame, double gainDB) {
    std::erase_if(points_, [&](const EnvelopePoint& p) { return p.frame == frame; });
    const auto at = std::upper_bound(points_.begin(), points_.end(), frame,
                                     [](int64_t f, const EnvelopePoint& p) { return f < p.frame; });
    return points_.insert(at, EnvelopePoint(frame, clampedGain(gainDB)))->id;
}

void GainEnvelope::move(const Uuid& id, std::optional<int64_t> toFrame, double gainDB) {
    const auto it =
        std::find_if(points_.begin(), points_.end(), [&](const EnvelopePoint& p) { return p.id == id; });
    if (it == points_.end())
        return;
    it->gainDB = clampedGain(gainDB);
    if (!toFrame)
        return;
    int64_t lower = it == points_.begin() ? INT64_MIN : std::prev(it)->frame + 1;
    int64_t upper = std::next(it) == points_.end() ? INT64_MAX : std::next(it)->frame - 1;
    if (lower > upper)
        std::swap(lower, upper);
    it->frame = clamped(*toFrame, lower, upper);
}

void GainEnvelope::remove(const Uuid& id) {
    std::erase_if(points_, [&](const EnvelopePoint& p) { return p.id == id; });
}

std::vector<Uuid> GainEnvelope::prepareSpan(FrameRange range, int64_t ramp) {
    if (range.isEmpty())
        return {};
    const int64_t lo = range.lower;
    const int64_t hi = range.upper;
    const double g1 = gainDB(static_cast<double>(lo - ramp));
    const double g2 = gainDB(static_cast<double>(lo));
    const double g3 = gainDB(static_cast<double>(hi));
    const double g4 = gainDB(static_cast<double>(hi + ramp));
    if (lo - ramp >= 0)
        insert(lo - ramp, g1);
    insert(lo, g2);
    insert(hi, g3);
    insert(hi + ramp, g4);
    std::vector<Uuid> ids;
    for (const auto& p : points_)
        if (p.frame >= lo && p.frame <= hi)
            ids.push_back(p.id);
    return ids;
}

GainEnvelope GainEnvelope::adjusted(FrameRange afterReplacing, int64_t newLength) const {
    const int64_t lo = afterReplacing.lower;
    const int64_t hi = afterReplacing.upper;
    const int64_t delta = newLength - (hi - lo);
    GainEnvelope result;
    for (const auto& p : points_) {
        if (p.frame < lo)
            result.insert(p.frame, p.gainDB);
        else if (p.frame >= hi)
            result.insert(p.frame + delta, p.gainDB);
        else if (newLength > 0)
            result.insert(lo + std::min(p.frame - lo, newLength - 1), p.gainDB);
    }
    return result;
}

GainEnvelope GainEnvelope::scaled(double ratio) const {
    std::vector<EnvelopePoint> points;
    points.reserve(points_.size());
    for (const auto& p : points_)
        points.emplace_back(static_cast<int64_t>(std::llround(static_cast<double>(p.frame) * ratio)),
                            p.gainDB);
    return GainEnvelope(std::move(points));
}

// EnvelopeSet ---------------------------------------------------------------------------------

bool EnvelopeSet::isFlat() const {
    return master.isFlat() &&
           std::all_of(channels.begin(), channels.end(), [](const auto& e) { return e.isFlat(); }) &&
           std::all_of(trimDB.begin(), trimDB.end(), [](double t) { return std::abs(t) < flatThreshold; });
}

bool EnvelopeSet::isEmpty() const {
    return master.points().empty() &&
           std::all_of(channels.begin(), channels.end(), [](const auto& e) { return e.points().empty(); }) &&
           std::all_of(trimDB.begin(), trimDB.end(), [](double t) { return std::abs(t) < flatThreshold; });
}

const GainEnvelope& EnvelopeSet::operator[](std::optional<int> target) const {
    static const GainEnvelope none;
    if (!target)
        return master;
    HARLUNE_PRECONDITION(*target >= 0, "envelope target: negative channel index");
    if (static_cast<size_t>(*target) < channels.size())
        return channels[static_cast<size_t>(*target)];
    return none;
}

GainEnvelope& EnvelopeSet::edit(std::optional<int> target) {
    if (!target)
        return master;
    HARLUNE_PRECONDITION(*target >= 0, "envelope target: negative channel index");
    const auto index = static_cast<size_t>(*target);
    if (index >= channels.size())
        channels.resize(index + 1);
    return channels[index];
}

void EnvelopeSet::set(std::optional<int> target, GainEnvelope envelope) {
    edit(target) = std::move(envelope);
}

double EnvelopeSet::trim(int channel) const {
    if (channel < 0 || static_cast<size_t>(channel) >= trimDB.size())
        return 0;
    return trimDB[static_cast<size_t>(channel)];
}

void EnvelopeSet::setTrim(int channel, double value, int channelCount) {
    const auto count = static_cast<size_t>(std::max(channelCount, 0));
    if (trimDB.size() != count)
        trimDB.assign(count, 0.0);
    if (channel >= 0 && static_cast<size_t>(channel) < count)
        trimDB[static_cast<size_t>(channel)] = clamped(value, -trimLimit, trimLimit);
}

double EnvelopeSet::gainDB(int channel, double frame) const {
    double gain = master.gainDB(frame);
    if (channel >= 0 && static_cast<size_t>(channel) < channels.size())
        gain += channels[static_cast<size_t>(channel)].gainDB(frame);
    return gain + trim(channel);
}

void EnvelopeSet::fillLinearGains(int channel, FrameRange range, float* into, float* scratch) const {
    if (range.isEmpty())
        return;
    master.fillLinearGains(range, into);
    if (channel >= 0 && static_cast<size_t>(channel) < channels.size()) {
        const auto& own = channels[static_cast<size_t>(channel)];
        if (!own.isFlat()) {
            own.fillLinearGains(range, scratch);
            vec::multiply(into, scratch, range.length());
        }
    }
    const double t = trim(channel);
    if (std::abs(t) > flatThreshold)
        vec::scale(into, range.length(), static_cast<float>(std::pow(10.0, t / 20.0)));
}

EnvelopeSet EnvelopeSet::adjusted(FrameRange afterReplacing, int64_t newLength) const {
    EnvelopeSet result(master.adjusted(afterReplacing, newLength), {}, trimDB);
    result.channels.reserve(channels.size());
    for (const auto& e : channels)
        result.channels.push_back(e.adjusted(afterReplacing, newLength));
    return result;
}

EnvelopeSet EnvelopeSet::scaled(double ratio) const {
    EnvelopeSet result(master.scaled(ratio), {}, trimDB);
    result.channels.reserve(channels.size());
    for (const auto& e : channels)
        result.channels.push_back(e.scaled(ratio));
    return result;
}

EnvelopeSet EnvelopeSet::fitted(int channelCount) const {
    const auto count = static_cast<size_t>(std::max(channelCount, 0));
    return EnvelopeSet(master, channels.size() == count ? channels : std::vector<GainEnvelope>{},
                       trimDB.size() == count ? trimDB : std::vector<double>{});
}

// JSON ----------------------------------------------------------------------------------------

void to_json(nlohmann::json& json, const EnvelopePoint& point) {
    json = nlohmann::json{{"id", point.id}, {"frame", point.frame}, {"gainDB", point.gainDB}};
}

void from_json(const nlohmann::json& json, EnvelopePoint& point) {
    point.id = json.at("id").get<Uuid>();
    point.frame = json.at("frame").get<int64_t>();
    point.gainDB = json.at("gainDB").get<double>();
}

void to_json(nlohmann::json& json, const GainEnvelope& envelope) {
    json = nlohmann::json{{"points", envelope.points()}};
}

void from_json(const nlohmann::json& json, GainEnvelope& envelope) {
    envelope = GainEnvelope(json.at("points").get<std::vector<EnvelopePoint>>());
}

void to_json(nlohmann::json& json, const EnvelopeSet& set) {
    json = nlohmann::json{{"master", set.master}, {"channels", set.channels}, {"trimDB", set.trimDB}};
}

void from_json(const nlohmann::json& json, EnvelopeSet& set) {
    set.master = json.at("master").get<GainEnvelope>();
    set.channels = json.at("channels").get<std::vector<GainEnvelope>>();
    set.trimDB = json.at("trimDB").get<std::vector<double>>();
}

} // namespace harlune
