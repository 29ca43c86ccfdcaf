#pragma once

#include <QWidget>

namespace harlune {

class EditorModel;

/// The markers as a list: add, rename in place, remove, go to.
class MarkersPanel final : public QWidget {
    Q_OBJECT

public:
    explicit MarkersPanel(EditorModel& model, QWidget* parent = nullptr);

private:
    EditorModel& model_;
};

} // namespace harlune
