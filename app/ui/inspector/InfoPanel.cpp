#include "ui/inspector/InfoPanel.h"

#include "editor/EditorModel.h"

namespace harlune {

InfoPanel::InfoPanel(EditorModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    setObjectName(QStringLiteral("InfoPanel"));
}

} // namespace harlune
