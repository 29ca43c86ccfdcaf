#include "ui/inspector/InfoPanel.h"

#include "core/EnvelopedSource.h"
#include "dsp/SignalAnalysis.h"
#include "editor/EditorModel.h"

#include <QFormLayout>
#include <QLabel>
#include <QLocale>
#include <QVBoxLayout>
#include <cmath>
#include <filesystem>

namespace harlune {

namespace {

// Queued behind the user's own long operations, like the loudness measurements.
constexpr int statsPriority = -1;

QLabel* heading(const QString& text) {
    auto* label = new QLabel(text);
    QFont bold = label->font();
    bold.setBold(true);
    label->setFont(bold);
    return label;
}

QString decibels(double linear) {
    const double db = 20 * std::log10(linear);
    if (!std::isfinite(db))
        return QStringLiteral("\u2013"); // silence: no level to print
    return QString::asprintf("%.1f", db);
}

// The mean as a percentage of full scale; a mean that rounds to nothing reads without a sign.
QString percent(double mean) {
    const QString text = QString::asprintf("%.4f%%", mean * 100);
    return text == QLatin1String("-0.0000%") ? QStringLiteral("0.0000%") : text;
}

QLabel* valueLabel(const QString& row, const QString& channel, const QString& text) {
    auto* label = new QLabel(text);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    label->setAccessibleName(channel.isEmpty() ? row : row + QLatin1Char(' ') + channel);
    label->setAccessibleDescription(text);
    return label;
}

} // namespace

InfoPanel::InfoPanel(EditorModel& model, QWidget* parent)
    : QWidget(parent), model_(model),
      statsJob_(*this, {statsDelayMs, statsPriority}, [&model] { return model.audioVersion(); }) {
    setObjectName(QStringLiteral("InfoPanel"));
    auto* layout = new QVBoxLayout(this);

    layout->addWidget(heading(tr("File")));
    fileForm_ = new QFormLayout;
    for (const QString& row : {tr("Name"), tr("Codec"), tr("Bitrate"), tr("File size"), tr("Decoder"),
                               tr("Sample rate"), tr("Channels"), tr("Duration"), tr("Samples")}) {
        QLabel* value = valueLabel(row, {}, {});
        value->setWordWrap(true);
        fileForm_->addRow(row, value);
        fileValues_.emplace_back(row, value);
    }
    layout->addLayout(fileForm_);

    signalTitle_ = heading(tr("Signal (entire file)"));
    layout->addWidget(signalTitle_);
    auto* note = new QLabel(tr("Levels in dBFS."));
    note->setEnabled(false); // the secondary look of a note
    layout->addWidget(note);
    signalBox_ = new QWidget;
    signalRows_ = new QVBoxLayout(signalBox_);
    signalRows_->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(signalBox_);
    layout->addStretch(1);

    connect(&model_, &EditorModel::fileInfoChanged, this, &InfoPanel::updateFileRows);
    connect(&model_, &EditorModel::contentVersionChanged, this, &InfoPanel::updateFileRows);
    // The model raises the audio version only after these signals: the job must be keyed to the
    // version it measures, so it starts once the change is complete.
    connect(&model_, &EditorModel::contentVersionChanged, this, &InfoPanel::requestStats,
            Qt::QueuedConnection);
    connect(&model_, &EditorModel::envelopesChanged, this, &InfoPanel::requestStats, Qt::QueuedConnection);
    connect(&model_, &EditorModel::selectionChanged, this, &InfoPanel::requestStats);
    updateFileRows();
    requestStats();
}

std::optional<QString> InfoPanel::fileValue(const QString& row) const {
    for (int index = 0; index < static_cast<int>(fileValues_.size()); ++index)
        if (fileValues_[static_cast<size_t>(index)].first == row)
            return fileForm_->isRowVisible(index)
                       ? std::optional<QString>(fileValues_[static_cast<size_t>(index)].second->text())
                       : std::nullopt;
    return std::nullopt;
}

QString InfoPanel::signalTitle() const {
    return signalTitle_->text();
}

std::optional<QString> InfoPanel::signalValue(int channel, const QString& row) const {
    if (channel < 0 || channel >= static_cast<int>(signalValues_.size()))
        return std::nullopt;
    for (const auto& [title, label] : signalValues_[static_cast<size_t>(channel)])
        if (title == row)
            return label->text();
    return std::nullopt;
}

void InfoPanel::updateFileRows() {
    const std::optional<AudioFileInfo>& info = model_.fileInfo();
    const AudioContent& content = model_.content();
    const QLocale locale;
    auto text = [&](const QString& row) -> QString {
        if (row == tr("Name")) {
            if (info && info->url)
                return QString::fromStdString(info->url->filename().string());
            return tr("Untitled (not saved)");
        }
        if (row == tr("Codec")) {
            if (!info || info->codecName.empty())
                return {};
            QString codec = QString::fromStdString(info->codecName);
            if (info->bitDepth)
                codec += QStringLiteral(" %1").arg(*info->bitDepth) +
                         (info->isFloat ? QStringLiteral("-bit float") : QStringLiteral("-bit"));
            return codec;
        }
        if (row == tr("Bitrate"))
            return info && info->bitRateKbps ? QString::number(*info->bitRateKbps) + QStringLiteral(" kbps")
                                             : QString();
        if (row == tr("File size"))
            return info && info->fileSize
                       ? locale.formattedDataSize(*info->fileSize, 1, QLocale::DataSizeSIFormat)
                       : QString();
        if (row == tr("Decoder"))
            return info ? QString::fromStdString(info->decoderName) : QString();
        if (content.channelCount() <= 0)
            return {};
        if (row == tr("Sample rate"))
            return QString::number(content.sampleRate(), 'g', 10) + QStringLiteral(" Hz");
        if (row == tr("Channels"))
            return QString::number(content.channelCount());
        if (row == tr("Duration"))
            return hms(content.duration(), 3);
        if (row == tr("Samples"))
            return locale.toString(static_cast<qlonglong>(content.frameCount()));
        return {};
    };
    for (int index = 0; index < static_cast<int>(fileValues_.size()); ++index) {
        const auto& [row, label] = fileValues_[static_cast<size_t>(index)];
        const QString value = text(row);
        label->setText(value);
        label->setAccessibleDescription(value);
        fileForm_->setRowVisible(index, !value.isEmpty());
    }
}

void InfoPanel::requestStats() {
    const AudioContent& content = model_.content();
    const std::optional<FrameRange>& selection = model_.selection();
    auto source = std::make_shared<EnvelopedSource>(content, model_.envelopes());
    const FrameRange range = selection.value_or(content.fullRange());
    const bool ofSelection = selection.has_value();
    statsJob_.start<Figures>(
        [source, range, ofSelection](const ProgressToken& token) {
            const auto goOn = [&token](double) {
                return !token.isCancelled();
            };
            return Figures{SignalAnalysis::stats(*source, range, FunctionRef<bool(double)>(goOn)),
                           ofSelection};
        },
        [this](Figures figures) { showStats(figures); });
}

void InfoPanel::showStats(const Figures& figures) {
    signalTitle_->setText(figures.ofSelection ? tr("Signal (selection)") : tr("Signal (entire file)"));
    // Rebuilt in full: a channel count may have changed, and there are a handful of rows.
    while (QLayoutItem* item = signalRows_->takeAt(0)) {
        if (QWidget* widget = item->widget())
            widget->deleteLater();
        delete item;
    }
    signalValues_.clear();
    const SignalStats& stats = figures.stats;
    for (int c = 0; c < stats.channelCount(); ++c) {
        const auto index = static_cast<size_t>(c);
        const QString channel = model_.channelName(c);
        auto* box = new QWidget;
        auto* form = new QFormLayout(box);
        form->setContentsMargins(0, 4, 0, 0);
        if (stats.channelCount() > 1)
            form->addRow(heading(channel));
        std::vector<std::pair<QString, QLabel*>> rows;
        const std::pair<QString, QString> values[] = {
            {tr("Peak"), decibels(stats.peak[index])},
            {tr("RMS"), decibels(stats.rms[index])},
            {tr("DC offset"), percent(stats.dcOffset[index])},
        };
        for (const auto& [row, text] : values) {
            QLabel* label = valueLabel(row, channel, text);
            form->addRow(row, label);
            rows.emplace_back(row, label);
        }
        signalRows_->addWidget(box);
        signalValues_.push_back(std::move(rows));
    }
}

} // namespace harlune
