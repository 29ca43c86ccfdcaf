#include "ui/inspector/RackPanel.h"

#include "editor/EditorModel.h"

namespace harlune {

RackPanel::RackPanel(EditorModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    setObjectName(QStringLiteral("RackPanel"));
}

} // namespace harlune
