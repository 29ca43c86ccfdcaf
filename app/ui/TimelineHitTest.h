#pragma once

#include "base/FrameRange.h"
#include "base/Uuid.h"
#include "ui/TimelineGeometry.h"

#include <QPointF>
#include <QRectF>
#include <Qt>
#include <optional>
#include <vector>

namespace harlune {

class EditorModel;
class GainEnvelope;
struct TempoGrid;

// What lies under a point of the timeline. Points are view coordinates; all reads are of the
// model as it is now. Main thread only, as the model.

/// The selection's edge to hold when a press lands within 5 points of the other: the start when
/// the end is in reach (the end wins where both are), the end when the start is. Absent without
/// a selection or in the ruler.
std::optional<int64_t> selectionEdgeAnchor(const EditorModel& model, QPointF point);

/// The marker whose flag is under the point, searched last to first so that the flag drawn last
/// wins. A flag reaches from 3 points left of its line to 60 right of it, whatever its name.
std::optional<Uuid> markerHit(const EditorModel& model, QPointF point);

/// The stretch between the markers around `frame`: from the last marker at or before it (else 0)
/// to the first after it (else the end).
FrameRange regionAround(const EditorModel& model, int64_t frame);

/// The nearest point of the target envelope within 8 points.
std::optional<Uuid> envelopePointNear(const EditorModel& model, const TimelineLayout& layout, QPointF point);

/// True when the target curve passes within 8 points of `point` vertically.
bool nearEnvelopeCurve(const EditorModel& model, const TimelineLayout& layout, QPointF point);

/// `frame` on the nearest sixteenth of the grid, clamped to 0...frameCount.
int64_t sixteenthSnapped(const TempoGrid& grid, double sampleRate, int64_t frame, int64_t frameCount);

/// True within 3 points of the loudness lane's top edge while it is shown.
bool onLaneEdge(const TimelineLayout& layout, QPointF point);

/// The pointer over `point` when no gesture runs.
Qt::CursorShape pointerShape(const EditorModel& model, const TimelineLayout& layout, QPointF point);

/// The clamped frame under x.
int64_t frameAtX(const EditorModel& model, double x);

/// The chip under the point: the target it selects (absent for the master).
std::optional<std::optional<int>> chipHit(const std::vector<std::pair<QRectF, std::optional<int>>>& chips,
                                          QPointF point);

} // namespace harlune
