#include "ui/RecordBar.h"

#include "editor/EngineRecorderControl.h"
#include "ui/InputMeterView.h"

#include <QCheckBox>
#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>
#include <cmath>

namespace harlune {

QString elapsedText(double seconds) {
    const auto tenths = static_cast<long long>(std::floor(std::max(0.0, seconds) * 10));
    return QString::asprintf("%lld:%02lld.%lld", tenths / 600, tenths / 10 % 60, tenths % 10);
}

RecordBar::RecordBar(EngineRecorderControl& control, QWidget* parent) : QWidget(parent), control_(control) {
    setObjectName(QStringLiteral("RecordBar"));
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(8, 4, 8, 4);
    column->setSpacing(2);
    auto* row = new QHBoxLayout;
    column->addLayout(row);

    record_ = new QPushButton(this);
    record_->setObjectName(QStringLiteral("RecordButton"));
    device_ = new QComboBox(this);
    device_->setAccessibleName(tr("Input device"));
    input_ = new QComboBox(this);
    input_->setAccessibleName(tr("Inputs"));
    mode_ = new QComboBox(this);
    mode_->setAccessibleName(tr("Record mode"));
    mode_->addItem(tr("Insert at the cursor"), static_cast<int>(RecordMode::insert));
    mode_->addItem(tr("Replace the selection"), static_cast<int>(RecordMode::replace));
    mode_->addItem(tr("Append at the end"), static_cast<int>(RecordMode::append));
    monitoring_ = new QCheckBox(tr("Monitor"), this);
    monitoring_->setToolTip(tr("Hear the input through the speakers while armed"));
    meter_ = new InputMeterView(this);
    elapsed_ = new QLabel(elapsedText(0), this);
    elapsed_->setObjectName(QStringLiteral("RecordElapsed"));
    elapsed_->setMinimumWidth(elapsed_->fontMetrics().horizontalAdvance(QStringLiteral("00:00.0")));
    close_ = new QPushButton(tr("Close"), this);
    close_->setToolTip(tr("Stop listening to the input"));
    row->addWidget(record_);
    row->addWidget(device_, 2);
    row->addWidget(input_, 1);
    row->addWidget(mode_, 1);
    row->addWidget(monitoring_);
    row->addWidget(meter_, 2);
    row->addWidget(elapsed_);
    row->addWidget(close_);
    error_ = new QLabel(this);
    error_->setObjectName(QStringLiteral("RecordError"));
    error_->setWordWrap(true);
    column->addWidget(error_);

    Recorder& recorder = control_.recorder();
    connect(record_, &QPushButton::clicked, this, [&recorder] { recorder.toggle(); });
    connect(close_, &QPushButton::clicked, this, [&recorder] { recorder.disarm(); });
    connect(meter_, &InputMeterView::clipResetRequested, this,
            [&recorder] { recorder.resetClipIndicators(); });
    connect(device_, &QComboBox::activated, this,
            [this, &recorder](int index) { recorder.setDeviceID(device_->itemData(index).toUInt()); });
    connect(input_, &QComboBox::activated, this, [this, &recorder](int index) {
        const auto choices = recorder.inputChoices();
        if (index >= 0 && index < static_cast<int>(choices.size()))
            recorder.setInputChoice(choices[static_cast<size_t>(index)]);
    });
    connect(mode_, &QComboBox::activated, this,
            [this](int index) { control_.setMode(static_cast<RecordMode>(mode_->itemData(index).toInt())); });
    connect(monitoring_, &QCheckBox::toggled, this, [this, &recorder](bool on) {
        if (!following_ && on != recorder.monitoring())
            recorder.setMonitoring(on);
    });
    connect(&control_, &EngineRecorderControl::changed, this, &RecordBar::follow);
    follow();
}

void RecordBar::follow() {
    following_ = true;
    const Recorder& recorder = control_.recorder();
    setVisible(recorder.isArmed() || recorder.errorMessage().has_value());
    record_->setText(recorder.isRecording() ? tr("Stop") : tr("Record"));
    record_->setEnabled(recorder.isArmed());
    // Choosing another input mid-take would end it: the choices wait for the take to finish.
    for (QWidget* control :
         {static_cast<QWidget*>(device_), static_cast<QWidget*>(input_), static_cast<QWidget*>(mode_)})
        control->setEnabled(recorder.isArmed() && !recorder.isRecording());

    const auto& devices = recorder.devices();
    bool sameDevices = device_->count() == static_cast<int>(devices.size());
    for (int i = 0; sameDevices && i < device_->count(); ++i)
        sameDevices = device_->itemData(i).toUInt() == devices[static_cast<size_t>(i)].id &&
                      device_->itemText(i) == QString::fromStdString(devices[static_cast<size_t>(i)].name);
    if (!sameDevices) {
        device_->clear();
        for (const InputDevice& device : devices)
            device_->addItem(QString::fromStdString(device.name), device.id);
    }
    if (recorder.deviceID())
        device_->setCurrentIndex(device_->findData(*recorder.deviceID()));

    const auto choices = recorder.inputChoices();
    QStringList titles;
    for (const InputChoice& choice : choices)
        titles << QString::fromStdString(choice.title());
    QStringList shown;
    for (int i = 0; i < input_->count(); ++i)
        shown << input_->itemText(i);
    if (shown != titles) {
        input_->clear();
        input_->addItems(titles);
    }
    if (recorder.inputChoice()) {
        const auto it = std::find(choices.begin(), choices.end(), *recorder.inputChoice());
        input_->setCurrentIndex(it == choices.end() ? -1 : static_cast<int>(it - choices.begin()));
    }
    mode_->setCurrentIndex(mode_->findData(static_cast<int>(control_.mode())));
    monitoring_->setChecked(recorder.monitoring());
    meter_->setLevels(recorder.peaksDB(), recorder.clipped());
    const double rate = recorder.deviceSampleRate();
    elapsed_->setText(elapsedText(rate > 0 ? static_cast<double>(recorder.elapsedFrames()) / rate : 0));
    error_->setText(recorder.errorMessage() ? QString::fromStdString(*recorder.errorMessage()) : QString());
    error_->setVisible(recorder.errorMessage().has_value());
    following_ = false;
}

} // namespace harlune
