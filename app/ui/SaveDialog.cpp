#include "ui/SaveDialog.h"

#include <QComboBox>
#include <QDir>
#include <QFileInfo>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <algorithm>

namespace harlune {

namespace {

QString text(std::string_view view) {
    return QString::fromUtf8(view.data(), qsizetype(view.size()));
}

} // namespace

SaveDialog::SaveDialog(const QString& title, const QString& name, const EncodeSettings& start,
                       const AudioContent& source, QWidget* parent)
    : QFileDialog(parent, title), format_(new QComboBox(this)), bitDepth_(new QComboBox(this)),
      bitRate_(new QComboBox(this)), sampleRate_(new QComboBox(this)), dither_(new QComboBox(this)),
      bitDepthLabel_(new QLabel(tr("Bit depth"), this)), bitRateLabel_(new QLabel(tr("Bitrate"), this)),
      notes_(new QLabel(this)) {
    // Non-native: the options go into the dialog's own grid, which a native dialog has not.
    setOption(QFileDialog::DontUseNativeDialog);
    setAcceptMode(QFileDialog::AcceptSave);
    setFileMode(QFileDialog::AnyFile);
    setWindowModality(Qt::WindowModal);
    setAttribute(Qt::WA_DeleteOnClose);
    setObjectName(QStringLiteral("saveDialog"));
    options_.settings = start.normalized();
    options_.sourceRate = source.sampleRate();
    options_.sourceChannels = source.channelCount();
    const auto available = ExportOptions::availableFormats();
    if (std::ranges::find(available, options_.settings.format) == available.end() && !available.empty())
        options_.setFormat(available.front());
    for (const ExportFormat format : available)
        format_->addItem(text(displayName(format)), int(format));
    format_->setAccessibleName(tr("Format"));
    dither_->addItem(tr("None"), int(DitherMode::none));
    dither_->addItem(tr("Triangular (TPDF)"), int(DitherMode::tpdf));
    notes_->setWordWrap(true);

    if (auto* grid = qobject_cast<QGridLayout*>(layout())) {
        int row = grid->rowCount();
        const auto addRow = [&](QWidget* label, QWidget* field) {
            grid->addWidget(label, row, 0);
            grid->addWidget(field, row, 1, 1, grid->columnCount() - 1);
            ++row;
        };
        addRow(new QLabel(tr("Format"), this), format_);
        addRow(bitDepthLabel_, bitDepth_);
        addRow(bitRateLabel_, bitRate_);
        addRow(new QLabel(tr("Sample rate"), this), sampleRate_);
        addRow(new QLabel(tr("Dither"), this), dither_);
        grid->addWidget(notes_, row, 0, 1, grid->columnCount());
    }
    // The options rows take room from the file list: the dialog's own default leaves a few rows.
    resize(std::max(width(), 780), std::max(height(), 560));

    connect(format_, &QComboBox::currentIndexChanged, this, [this] {
        if (filling_)
            return;
        options_.setFormat(ExportFormat(format_->currentData().toInt()));
        fillRows();
        syncPanel();
    });
    connect(bitDepth_, &QComboBox::currentIndexChanged, this, [this] {
        if (!filling_ && bitDepth_->currentIndex() >= 0)
            options_.settings.bitDepth = PCMBitDepth(bitDepth_->currentData().toInt());
    });
    connect(bitRate_, &QComboBox::currentIndexChanged, this, [this] {
        if (!filling_ && bitRate_->currentIndex() >= 0)
            options_.settings.bitRateKbps = bitRate_->currentData().toInt();
    });
    connect(sampleRate_, &QComboBox::currentIndexChanged, this, [this] {
        if (filling_ || sampleRate_->currentIndex() < 0)
            return;
        const double rate = sampleRate_->currentData().toDouble();
        options_.settings.sampleRate = rate > 0 ? std::optional<double>(rate) : std::nullopt;
        fillRows();
    });
    connect(dither_, &QComboBox::currentIndexChanged, this, [this] {
        if (!filling_)
            options_.settings.dither = DitherMode(dither_->currentData().toInt());
    });
    connect(this, &QFileDialog::fileSelected, this,
            [this](const QString& path) { Q_EMIT chosen(path, options_.settings); });

    selectFile(name + QLatin1Char('.') + text(fileExtension(options_.settings.format)));
    fillRows();
    syncPanel();
}

void SaveDialog::fillRows() {
    filling_ = true;
    const EncodeSettings& settings = options_.settings;
    format_->setCurrentIndex(format_->findData(int(settings.format)));
    bitDepth_->clear();
    for (const PCMBitDepth depth : supportedBitDepths(settings.format))
        bitDepth_->addItem(text(displayName(depth)), rawValue(depth));
    bitDepth_->setCurrentIndex(bitDepth_->findData(rawValue(settings.bitDepth)));
    bitDepth_->setVisible(bitDepth_->count() > 0);
    bitDepthLabel_->setVisible(bitDepth_->count() > 0);
    bitRate_->clear();
    for (const int rate : supportedBitRates(settings.format))
        bitRate_->addItem(tr("%1 kbps").arg(rate), rate);
    bitRate_->setCurrentIndex(bitRate_->findData(settings.bitRateKbps));
    bitRate_->setVisible(bitRate_->count() > 0);
    bitRateLabel_->setVisible(bitRate_->count() > 0);
    sampleRate_->clear();
    sampleRate_->addItem(tr("Same as source (%1)").arg(ExportOptions::rateText(options_.sourceRate)), 0.0);
    for (const double rate : options_.sampleRateChoices())
        sampleRate_->addItem(ExportOptions::rateText(rate), rate);
    sampleRate_->setCurrentIndex(
        settings.sampleRate ? std::max(0, sampleRate_->findData(*settings.sampleRate)) : 0);
    dither_->setCurrentIndex(dither_->findData(int(settings.dither)));
    QStringList notes;
    for (const QString& note : options_.notes())
        notes << QStringLiteral("ⓘ ") + note;
    notes_->setText(notes.join(QLatin1Char('\n')));
    notes_->setVisible(!notes.isEmpty());
    filling_ = false;
}

QString SaveDialog::nameFieldText() const {
    const auto* field = findChild<QLineEdit*>(QStringLiteral("fileNameEdit"));
    return field ? field->text() : QString();
}

void SaveDialog::setName(const QString& name) {
    if (auto* field = findChild<QLineEdit*>(QStringLiteral("fileNameEdit")))
        field->setText(name);
}

void SaveDialog::syncPanel() {
    const ExportFormat format = options_.settings.format;
    const QString extension = text(fileExtension(format));
    setNameFilter(QStringLiteral("%1 (*.%2)").arg(text(displayName(format)), extension));
    const QString name = nameFieldText();
    if (name.isEmpty())
        return;
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    setName((dot > 0 ? name.left(dot) : name) + QLatin1Char('.') + extension);
}

void SaveDialog::accept() {
    const QString typed = nameFieldText();
    if (!typed.isEmpty()) {
        const ExportFormat before = options_.settings.format;
        const QString name = options_.acceptName(typed);
        if (options_.settings.format != before) {
            fillRows();
            syncPanel();
        }
        setName(name);
    }
    QFileDialog::accept();
}

} // namespace harlune
