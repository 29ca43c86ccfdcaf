#pragma once

#include "base/AudioFormats.h"

#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

namespace harlune {

/// The state of the save dialog's options: the settings the user picks, and what the source is,
/// for the notes about resampling and downmixing. Plain value logic; the dialog shows it.
struct ExportOptions {
    EncodeSettings settings;
    double sourceRate = 48000;
    int sourceChannels = 2;

    /// The formats this machine can write, in catalog order.
    static std::vector<ExportFormat> availableFormats();
    /// "48 kHz", "22.1 kHz".
    static QString rateText(double rate);

    /// Switches the format and brings the other settings inside what it carries.
    void setFormat(ExportFormat format);
    /// The standard rates the format supports.
    std::vector<double> sampleRateChoices() const;
    /// The notes on resampling, downmixing and lossy coding that apply, in that order.
    QStringList notes() const;
    /// The name `fileName` gets on accept: a typed extension that names another available format
    /// switches to it; any other is replaced by the format's.
    QString acceptName(const QString& fileName);
};

/// The available format whose extension `path` has, if any.
std::optional<ExportFormat> formatForPath(const QString& path);

} // namespace harlune
