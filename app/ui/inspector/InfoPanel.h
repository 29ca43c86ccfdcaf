#pragma once

#include <QWidget>

namespace harlune {

class EditorModel;

/// The file's facts and the signal statistics of the file or the selection.
class InfoPanel final : public QWidget {
    Q_OBJECT

public:
    explicit InfoPanel(EditorModel& model, QWidget* parent = nullptr);

private:
    EditorModel& model_;
};

} // namespace harlune
