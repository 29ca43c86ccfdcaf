#pragma once

#include <QWidget>

namespace harlune {

class EditorModel;

/// The spectrum around the cursor, live at the playhead, or averaged over the selection.
class SpectrumPanel final : public QWidget {
    Q_OBJECT

public:
    explicit SpectrumPanel(EditorModel& model, QWidget* parent = nullptr);

private:
    EditorModel& model_;
};

} // namespace harlune
