#include "ui/inspector/LoudnessPanel.h"

#include "editor/EditorModel.h"

namespace harlune {

LoudnessPanel::LoudnessPanel(EditorModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    setObjectName(QStringLiteral("LoudnessPanel"));
}

} // namespace harlune
