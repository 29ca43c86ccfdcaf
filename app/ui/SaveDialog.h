#pragma once

#include "base/AudioFormats.h"
#include "core/AudioContent.h"
#include "ui/ExportOptions.h"

#include <QFileDialog>

class QComboBox;
class QLabel;

namespace harlune {

/// The save and export dialog: a file dialog whose options (format, bit depth, bitrate, sample
/// rate, dither) sit in its own grid. The Format picker is the only format chooser: the type
/// filter holds that format's entry alone, and the name's extension follows it. Window-modal,
/// opened with `open()`; ends in `chosen` when accepted.
class SaveDialog final : public QFileDialog {
    Q_OBJECT

public:
    SaveDialog(const QString& title, const QString& name, const EncodeSettings& start,
               const AudioContent& source, QWidget* parent);

    const ExportOptions& options() const { return options_; }
    QComboBox& formatPicker() { return *format_; }
    /// Sets the name in the name field, as a user would type it.
    void setName(const QString& name);

Q_SIGNALS:
    void chosen(const QString& path, const EncodeSettings& settings);

public Q_SLOTS:
    void accept() override;

private:
    void syncPanel();
    void fillRows();
    QString nameFieldText() const;

    ExportOptions options_;
    QComboBox* format_;
    QComboBox* bitDepth_;
    QComboBox* bitRate_;
    QComboBox* sampleRate_;
    QComboBox* dither_;
    QLabel* bitDepthLabel_;
    QLabel* bitRateLabel_;
    QLabel* notes_;
    bool filling_ = false;
};

} // namespace harlune
