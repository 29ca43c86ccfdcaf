#include "ui/inspector/MarkersPanel.h"

#include "editor/EditorModel.h"

namespace harlune {

MarkersPanel::MarkersPanel(EditorModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    setObjectName(QStringLiteral("MarkersPanel"));
}

} // namespace harlune
