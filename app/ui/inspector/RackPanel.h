#pragma once

#include <QWidget>

namespace harlune {

class EditorModel;

/// The effects rack: its slots in processing order, each with an editor built from its parameters.
class RackPanel final : public QWidget {
    Q_OBJECT

public:
    explicit RackPanel(EditorModel& model, QWidget* parent = nullptr);

private:
    EditorModel& model_;
};

} // namespace harlune
