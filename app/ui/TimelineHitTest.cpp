#include "ui/TimelineHitTest.h"

#include "core/TempoGrid.h"
#include "editor/EditorModel.h"

#include <algorithm>
#include <cmath>

namespace harlune {
namespace {

constexpr double edgeReach = 5;
constexpr double pointReach = 8;
constexpr double flagLeft = 3;
constexpr double flagWidth = 60;

double xOfFrame(const EditorModel& model, double frame) {
    return frameToX(frame, model.scrollFrame(), model.framesPerPoint());
}

} // namespace

int64_t frameAtX(const EditorModel& model, double x) {
    return clampedFrame(x, model.scrollFrame(), model.framesPerPoint(), model.content().frameCount());
}

std::optional<int64_t> selectionEdgeAnchor(const EditorModel& model, QPointF point) {
    const auto& selection = model.selection();
    if (!selection || point.y() < rulerHeight)
        return std::nullopt;
    if (std::abs(point.x() - xOfFrame(model, static_cast<double>(selection->upper))) <= edgeReach)
        return selection->lower;
    if (std::abs(point.x() - xOfFrame(model, static_cast<double>(selection->lower))) <= edgeReach)
        return selection->upper;
    return std::nullopt;
}

std::optional<Uuid> markerHit(const EditorModel& model, QPointF point) {
    if (point.y() >= rulerHeight)
        return std::nullopt;
    const auto& markers = model.markers();
    for (auto marker = markers.rbegin(); marker != markers.rend(); ++marker) {
        const double x = xOfFrame(model, static_cast<double>(marker->frame));
        if (point.x() >= x - flagLeft && point.x() < x + flagWidth)
            return marker->id;
    }
    return std::nullopt;
}

FrameRange regionAround(const EditorModel& model, int64_t frame) {
    int64_t lower = 0;
    int64_t upper = model.content().frameCount();
    for (const Marker& marker : model.markers()) {
        if (marker.frame <= frame)
            lower = std::max(lower, marker.frame);
        else
            upper = std::min(upper, marker.frame);
    }
    return {lower, upper};
}

std::optional<Uuid> envelopePointNear(const EditorModel& model, const TimelineLayout& layout, QPointF point) {
    const GainEnvelope& envelope = model.envelopes()[model.envelopeTarget()];
    std::optional<Uuid> nearest;
    double best = pointReach;
    for (const EnvelopePoint& candidate : envelope.points()) {
        const QPointF at(xOfFrame(model, static_cast<double>(candidate.frame)),
                         layout.envelopeY(candidate.gainDB, model.envelopeRangeDB()));
        const double distance = std::hypot(at.x() - point.x(), at.y() - point.y());
        if (distance <= best) {
            best = distance;
            nearest = candidate.id;
        }
    }
    return nearest;
}

bool nearEnvelopeCurve(const EditorModel& model, const TimelineLayout& layout, QPointF point) {
    const GainEnvelope& envelope = model.envelopes()[model.envelopeTarget()];
    const double gain = envelope.gainDB(static_cast<double>(frameAtX(model, point.x())));
    return std::abs(layout.envelopeY(gain, model.envelopeRangeDB()) - point.y()) <= pointReach;
}

int64_t sixteenthSnapped(const TempoGrid& grid, double sampleRate, int64_t frame, int64_t frameCount) {
    const double step = 60 / grid.bpm * sampleRate * 0.25;
    const auto downbeat = static_cast<double>(grid.downbeatFrame);
    const double snapped =
        std::round(step * std::round((static_cast<double>(frame) - downbeat) / step) + downbeat);
    return static_cast<int64_t>(std::clamp(snapped, 0.0, static_cast<double>(frameCount)));
}

bool onLaneEdge(const TimelineLayout& layout, QPointF point) {
    return layout.loudnessHeight > 0 && std::abs(point.y() - layout.loudness.top()) <= 3;
}

Qt::CursorShape pointerShape(const EditorModel& model, const TimelineLayout& layout, QPointF point) {
    if (onLaneEdge(layout, point))
        return Qt::SizeVerCursor;
    if (layout.loudnessHeight > 0 && layout.loudness.contains(point))
        return envelopePointNear(model, layout, point) ? Qt::OpenHandCursor : Qt::CrossCursor;
    if (markerHit(model, point))
        return Qt::OpenHandCursor;
    if (selectionEdgeAnchor(model, point))
        return Qt::SizeHorCursor;
    if (point.y() >= rulerHeight)
        return Qt::IBeamCursor;
    return Qt::ArrowCursor;
}

std::optional<std::optional<int>> chipHit(const std::vector<std::pair<QRectF, std::optional<int>>>& chips,
                                          QPointF point) {
    for (const auto& [rect, target] : chips)
        if (rect.contains(point))
            return target;
    return std::nullopt;
}

} // namespace harlune
