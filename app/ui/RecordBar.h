#pragma once

#include <QWidget>

class QCheckBox;
class QComboBox;
class QLabel;
class QPushButton;

namespace harlune {

class EngineRecorderControl;
class InputMeterView;

/// The window's record controls, shown while the recorder is armed: the input device, which of
/// its inputs, where the take goes, monitoring, the input meters, the elapsed time, and the
/// record and close buttons. Everything reads and writes the recorder of the window's document.
class RecordBar final : public QWidget {
    Q_OBJECT

public:
    RecordBar(EngineRecorderControl& control, QWidget* parent = nullptr);

    QComboBox& deviceBox() { return *device_; }
    QComboBox& inputBox() { return *input_; }
    QComboBox& modeBox() { return *mode_; }
    QCheckBox& monitoringBox() { return *monitoring_; }
    InputMeterView& meter() { return *meter_; }
    QPushButton& recordButton() { return *record_; }
    QLabel& elapsedLabel() { return *elapsed_; }
    QLabel& errorLabel() { return *error_; }

private:
    void follow();

    EngineRecorderControl& control_;
    QComboBox* device_ = nullptr;
    QComboBox* input_ = nullptr;
    QComboBox* mode_ = nullptr;
    QCheckBox* monitoring_ = nullptr;
    InputMeterView* meter_ = nullptr;
    QLabel* elapsed_ = nullptr;
    QPushButton* record_ = nullptr;
    QPushButton* close_ = nullptr;
    QLabel* error_ = nullptr;
    bool following_ = false;
};

/// "0:07.3": minutes, seconds and tenths of a take.
QString elapsedText(double seconds);

} // namespace harlune
