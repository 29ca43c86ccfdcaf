// The marker commands of the editor model. Each is one undo step of a whole state; the list
// comes out sorted by frame, stable, so markers at one frame keep their order.

#include "editor/EditorModel.h"

#include <algorithm>

namespace harlune {

namespace {

void sortByFrame(std::vector<Marker>& list) {
    std::stable_sort(list.begin(), list.end(),
                     [](const Marker& a, const Marker& b) { return a.frame < b.frame; });
}

std::vector<Marker>::iterator findMarker(std::vector<Marker>& list, const Uuid& id) {
    return std::find_if(list.begin(), list.end(), [&id](const Marker& marker) { return marker.id == id; });
}

} // namespace

void EditorModel::addMarker(std::optional<int64_t> at) {
    int64_t frame = cursor_;
    if (at)
        frame = *at;
    else if (isPlaying_)
        frame = playhead_;
    else if (selection_)
        frame = selection_->lower;

    Marker marker;
    marker.frame = frame;
    // Numbers are not reused with any care: after a removal two markers may share a name.
    marker.name = QStringLiteral("Marker %1").arg(markers_.size() + 1);
    EditState next = snapshot();
    next.markers.push_back(std::move(marker));
    sortByFrame(next.markers);
    commitEdit(next, QStringLiteral("Add Marker"));
}

void EditorModel::removeMarker(const Uuid& id) {
    EditState next = snapshot();
    if (std::erase_if(next.markers, [&id](const Marker& marker) { return marker.id == id; }) == 0)
        return;
    sortByFrame(next.markers);
    commitEdit(next, QStringLiteral("Remove Marker"));
}

void EditorModel::renameMarker(const Uuid& id, const QString& to) {
    EditState next = snapshot();
    const auto marker = findMarker(next.markers, id);
    if (marker == next.markers.end() || marker->name == to)
        return;
    marker->name = to;
    sortByFrame(next.markers);
    commitEdit(next, QStringLiteral("Rename Marker"));
}

void EditorModel::moveMarker(const Uuid& id, int64_t to, bool withUndo) {
    std::vector<Marker> list = markers_;
    const auto marker = findMarker(list, id);
    if (marker == list.end())
        return;
    marker->frame = std::clamp(to, int64_t{0}, content_.frameCount());
    if (!withUndo) {
        // A drag in progress: the live list, unsorted, until `endMarkerDrag`.
        setMarkers(std::move(list));
        return;
    }
    sortByFrame(list);
    EditState next = snapshot();
    next.markers = std::move(list);
    commitEdit(next, QStringLiteral("Move Marker"));
}

void EditorModel::endMarkerDrag(const std::vector<Marker>& original) {
    if (markers_ == original)
        return;
    std::vector<Marker> edited = markers_;
    sortByFrame(edited);
    // The step must start from the list as it was before the drag wrote into it.
    setMarkers(original);
    EditState next = snapshot();
    next.markers = std::move(edited);
    commitEdit(next, QStringLiteral("Move Marker"));
}

void EditorModel::jumpToMarker(bool next) {
    const int64_t position = isPlaying_ ? playhead_ : cursor_;
    // The margin of a frame keeps a jump from landing on the marker it starts from.
    std::optional<int64_t> target;
    for (const Marker& marker : markers_) {
        if (next && marker.frame > position + 1 && (!target || marker.frame < *target))
            target = marker.frame;
        if (!next && marker.frame < position - 1 && (!target || marker.frame > *target))
            target = marker.frame;
    }
    if (target)
        seek(*target);
    else if (!next)
        seek(0);
}

} // namespace harlune
