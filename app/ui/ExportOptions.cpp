#include "ui/ExportOptions.h"

#include "io/AudioEncoder.h"

#include <QFileInfo>
#include <algorithm>
#include <cmath>

namespace harlune {

namespace {

QString text(std::string_view view) {
    return QString::fromUtf8(view.data(), qsizetype(view.size()));
}

} // namespace

std::vector<ExportFormat> ExportOptions::availableFormats() {
    std::vector<ExportFormat> formats;
    for (const ExportFormat format : allExportFormats())
        if (AudioEncoder::isAvailable(format))
            formats.push_back(format);
    return formats;
}

QString ExportOptions::rateText(double rate) {
    const double kHz = rate / 1000;
    if (kHz == std::floor(kHz))
        return QStringLiteral("%1 kHz").arg(qint64(kHz));
    return QStringLiteral("%1 kHz").arg(kHz, 0, 'f', 1);
}

void ExportOptions::setFormat(ExportFormat format) {
    settings.format = format;
    settings = settings.normalized();
}

std::vector<double> ExportOptions::sampleRateChoices() const {
    static constexpr double standard[] = {22050, 32000, 44100, 48000, 88200, 96000, 176400, 192000};
    const auto supported = supportedSampleRates(settings.format);
    std::vector<double> choices;
    for (const double rate : standard)
        if (!supported || std::ranges::find(*supported, rate) != supported->end())
            choices.push_back(rate);
    return choices;
}

QStringList ExportOptions::notes() const {
    QStringList notes;
    const QString name = text(displayName(settings.format));
    const double rate = settings.sampleRate.value_or(sourceRate);
    if (const auto supported = supportedSampleRates(settings.format);
        supported && std::ranges::find(*supported, rate) == supported->end())
        notes << QStringLiteral("%1 doesn’t support %2; audio will be resampled to %3")
                     .arg(name, rateText(rate),
                          rateText(AudioEncoder::outputSampleRate(settings.format, rate)));
    if (sourceChannels > maxChannels(settings.format))
        notes << QStringLiteral("%1 supports at most %2 channels; audio will be downmixed.")
                     .arg(name)
                     .arg(maxChannels(settings.format));
    if (isLossy(settings.format))
        notes << QStringLiteral("Lossy format — some audio detail is discarded.");
    return notes;
}

QString ExportOptions::acceptName(const QString& fileName) {
    if (const auto typed = formatForPath(fileName)) {
        if (fileExtension(*typed) != fileExtension(settings.format))
            setFormat(*typed);
        return fileName;
    }
    const QFileInfo info(fileName);
    const QString suffix = info.suffix();
    QString base = fileName;
    if (!suffix.isEmpty())
        base.chop(suffix.size() + 1);
    return base + QLatin1Char('.') + text(fileExtension(settings.format));
}

std::optional<ExportFormat> formatForPath(const QString& path) {
    const QString suffix = QFileInfo(path).suffix().toLower();
    if (suffix.isEmpty())
        return std::nullopt;
    for (const ExportFormat format : ExportOptions::availableFormats())
        if (suffix == text(fileExtension(format)))
            return format;
    return std::nullopt;
}

} // namespace harlune
