#pragma once

#include <QWidget>

namespace harlune {

class EditorModel;

/// The loudness workflow: the measurements of the chosen scope, their distribution, the adjustment with its
/// preview, live meters and the channel trims.
class LoudnessPanel final : public QWidget {
    Q_OBJECT

public:
    explicit LoudnessPanel(EditorModel& model, QWidget* parent = nullptr);

private:
    EditorModel& model_;
};

} // namespace harlune
