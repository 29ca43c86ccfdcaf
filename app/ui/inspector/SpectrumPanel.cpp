#include "ui/inspector/SpectrumPanel.h"

#include "editor/EditorModel.h"

namespace harlune {

SpectrumPanel::SpectrumPanel(EditorModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    setObjectName(QStringLiteral("SpectrumPanel"));
}

} // namespace harlune
