#pragma once

#include <QGroupBox>
#include <vector>

class QVBoxLayout;

namespace harlune {

class EditorModel;
class LinearMeterRow;

/// "Live": momentary and short-term loudness against the target, and the peak of each channel
/// with its hold, from the transport's meters (updated 30 times a second while playing).
class LiveMetersSection final : public QGroupBox {
    Q_OBJECT

public:
    explicit LiveMetersSection(EditorModel& model, QWidget* parent = nullptr);

    LinearMeterRow& momentary() { return *momentary_; }
    LinearMeterRow& shortTerm() { return *shortTerm_; }
    const std::vector<LinearMeterRow*>& peaks() const { return peaks_; }

private:
    void rebuildPeaks();
    void refresh();

    EditorModel& model_;
    QVBoxLayout* layout_;
    LinearMeterRow* momentary_;
    LinearMeterRow* shortTerm_;
    std::vector<LinearMeterRow*> peaks_;
};

} // namespace harlune
