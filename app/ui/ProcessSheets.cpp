#include "ui/ProcessSheets.h"

#include "base/Decibels.h"
#include "editor/EditorModel.h"
#include "editor/Preferences.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QCheckBox>
#include <QComboBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QSlider>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>

namespace harlune {

namespace {

QString text(std::string_view view) {
    return QString::fromUtf8(view.data(), qsizetype(view.size()));
}

// The frame every sheet shares: title, a form for its controls, an optional note, Cancel and
// the confirm button (the default). `confirm` runs on accept.
struct Sheet {
    QDialog* dialog;
    QFormLayout* form;
    QVBoxLayout* column;

    Sheet(QWidget* parent, const QString& title, const QString& objectName) : dialog(new QDialog(parent)) {
        dialog->setWindowTitle(title);
        dialog->setObjectName(objectName);
        dialog->setWindowModality(Qt::WindowModal);
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        column = new QVBoxLayout(dialog);
        form = new QFormLayout;
        column->addLayout(form);
    }

    void addNote(const QString& note) const {
        auto* label = new QLabel(note, dialog);
        label->setWordWrap(true);
        column->addWidget(label);
    }

    void finish(const QString& confirmTitle, std::function<void()> confirm) const {
        auto* buttons = new QDialogButtonBox(dialog);
        buttons->addButton(QDialog::tr("Cancel"), QDialogButtonBox::RejectRole);
        QPushButton* ok = buttons->addButton(confirmTitle, QDialogButtonBox::AcceptRole);
        ok->setDefault(true);
        ok->setAutoDefault(true);
        column->addWidget(buttons);
        QObject::connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::reject);
        QObject::connect(buttons, &QDialogButtonBox::accepted, dialog,
                         [dialog = dialog, confirm = std::move(confirm)] {
                             dialog->accept();
                             confirm();
                         });
        dialog->open();
    }
};

class FadeCurveAccessible final : public QAccessibleWidget {
public:
    explicit FadeCurveAccessible(FadeCurvePreview* view) : QAccessibleWidget(view, QAccessible::Graphic) {}

    QString text(QAccessible::Text kind) const override {
        if (kind == QAccessible::Value)
            return static_cast<const FadeCurvePreview*>(widget())->accessibleValue();
        return QAccessibleWidget::text(kind);
    }
};

QAccessibleInterface* fadeCurveAccessible(const QString& className, QObject* object) {
    if (className == QLatin1String(FadeCurvePreview::staticMetaObject.className()) && object &&
        object->isWidgetType())
        return new FadeCurveAccessible(static_cast<FadeCurvePreview*>(object));
    return nullptr;
}

QString decibelText(double db) {
    return db <= Decibels::floor ? QStringLiteral("-∞") : QString::number(db, 'f', 1);
}

} // namespace

QDialog* makeGainSheet(EditorModel& model, QWidget* parent) {
    Sheet sheet(parent, QDialog::tr("Gain"), QStringLiteral("gainSheet"));
    auto* slider = new QSlider(Qt::Horizontal, sheet.dialog);
    slider->setRange(-400, 400); // tenths of a dB
    slider->setAccessibleName(QDialog::tr("Gain"));
    auto* spin = new QDoubleSpinBox(sheet.dialog);
    spin->setRange(-40, 40);
    spin->setSingleStep(0.1);
    spin->setDecimals(1);
    spin->setSuffix(QStringLiteral(" dB"));
    spin->setAccessibleName(QDialog::tr("Gain in dB"));
    auto* row = new QHBoxLayout;
    row->addWidget(slider, 1);
    row->addWidget(spin);
    sheet.form->addRow(QDialog::tr("Gain"), row);

    const auto peaks = samplePeaks(model.content(), model.selection());
    const double peakDB = Decibels::fromLinear(peaks.empty() ? 0.0 : *std::ranges::max_element(peaks));
    auto* line = new QLabel(sheet.dialog);
    sheet.column->addWidget(line);
    const auto update = [line, peakDB](double db) {
        line->setText(
            QDialog::tr("Current peak %1 dBFS → %2 dBFS after gain.")
                .arg(decibelText(peakDB), decibelText(peakDB <= Decibels::floor ? peakDB : peakDB + db)));
    };
    QObject::connect(slider, &QSlider::valueChanged, spin, [spin](int tenths) {
        if (std::lround(spin->value() * 10) != tenths)
            spin->setValue(tenths / 10.0);
    });
    QObject::connect(spin, &QDoubleSpinBox::valueChanged, slider, [slider, update](double db) {
        slider->setValue(int(std::lround(db * 10)));
        update(db);
    });
    update(0);
    spin->setFocus();
    spin->selectAll();
    sheet.finish(QDialog::tr("Apply"), [&model, spin] { model.applyGain(spin->value()); });
    spin->setFocus();
    return sheet.dialog;
}

QDialog* makeNormalizeSheet(EditorModel& model, QWidget* parent) {
    Sheet sheet(parent, QDialog::tr("Normalize Peak"), QStringLiteral("normalizeSheet"));
    auto* target = new QDoubleSpinBox(sheet.dialog);
    target->setRange(-40, 0);
    target->setSingleStep(0.1);
    target->setDecimals(1);
    target->setSuffix(QStringLiteral(" dBFS"));
    sheet.form->addRow(QDialog::tr("Peak level"), target);
    auto* independent = new QCheckBox(QDialog::tr("Normalize each channel independently"), sheet.dialog);
    sheet.form->addRow(independent);
    sheet.addNote(
        QDialog::tr("To match perceived loudness (LUFS) instead of peak level, use Process ▸ Loudness."));
    target->setFocus();
    sheet.finish(QDialog::tr("Normalize"), [&model, target, independent] {
        model.normalizePeak(target->value(), independent->isChecked());
    });
    return sheet.dialog;
}

QDialog* makeFadeSheet(EditorModel& model, QWidget* parent) {
    Sheet sheet(parent, QDialog::tr("Fade"), QStringLiteral("fadeSheet"));
    auto* direction = new QComboBox(sheet.dialog);
    direction->addItem(QDialog::tr("Fade In"));
    direction->addItem(QDialog::tr("Fade Out"));
    sheet.form->addRow(QDialog::tr("Direction"), direction);
    auto* curve = new QComboBox(sheet.dialog);
    for (const FadeShape shape : allFadeShapes())
        curve->addItem(text(displayName(shape)), int(shape));
    const auto stored =
        fadeShapeFromRawValue(Preferences::stringValue(Preferences::Keys::fadeShape).toStdString());
    curve->setCurrentIndex(curve->findData(int(stored.value_or(FadeShape::sCurve))));
    sheet.form->addRow(QDialog::tr("Curve"), curve);
    auto* preview = new FadeCurvePreview(sheet.dialog);
    sheet.column->addWidget(preview);
    const auto update = [direction, curve, preview] {
        preview->setFade(direction->currentIndex() == 0 ? FadeDirection::fadeIn : FadeDirection::fadeOut,
                         FadeShape(curve->currentData().toInt()));
    };
    QObject::connect(direction, &QComboBox::currentIndexChanged, preview, update);
    QObject::connect(curve, &QComboBox::currentIndexChanged, preview, update);
    update();
    sheet.finish(QDialog::tr("Apply"), [&model, direction, curve] {
        const auto shape = FadeShape(curve->currentData().toInt());
        Preferences::setValue(Preferences::Keys::fadeShape, text(rawValue(shape)));
        model.fade(direction->currentIndex() == 0 ? FadeDirection::fadeIn : FadeDirection::fadeOut, shape);
    });
    return sheet.dialog;
}

QDialog* makeInsertSilenceSheet(EditorModel& model, QWidget* parent) {
    Sheet sheet(parent, QDialog::tr("Insert Silence"), QStringLiteral("insertSilenceSheet"));
    auto* seconds = new QDoubleSpinBox(sheet.dialog);
    seconds->setRange(0.001, 3600);
    seconds->setSingleStep(0.5);
    seconds->setDecimals(3);
    seconds->setValue(1);
    seconds->setSuffix(QDialog::tr(" Seconds"));
    sheet.form->addRow(QDialog::tr("Duration"), seconds);
    sheet.addNote(model.selection() ? QDialog::tr("Inserted at the start of the selection")
                                    : QDialog::tr("Inserted at the cursor"));
    seconds->setFocus();
    sheet.finish(QDialog::tr("Insert"), [&model, seconds] {
        model.insertSilence(int64_t(std::llround(seconds->value() * model.content().sampleRate())));
    });
    return sheet.dialog;
}

QDialog* makeSampleRateSheet(EditorModel& model, QWidget* parent) {
    Sheet sheet(parent, QDialog::tr("Change Sample Rate"), QStringLiteral("sampleRateSheet"));
    auto* rate = new QComboBox(sheet.dialog);
    for (const double choice :
         {8000.0, 11025.0, 16000.0, 22050.0, 32000.0, 44100.0, 48000.0, 88200.0, 96000.0, 176400.0, 192000.0})
        rate->addItem(QStringLiteral("%1 Hz").arg(qint64(choice)), choice);
    const int current = rate->findData(model.content().sampleRate());
    if (current >= 0)
        rate->setCurrentIndex(current);
    else
        rate->insertItem(0, QStringLiteral("%1 Hz").arg(model.content().sampleRate()),
                         model.content().sampleRate());
    sheet.form->addRow(QDialog::tr("New rate"), rate);
    sheet.addNote(
        QDialog::tr("Converts the whole file with a mastering-quality sample-rate converter. Duration and "
                    "pitch are unchanged."));
    sheet.finish(QDialog::tr("Convert"),
                 [&model, rate] { model.changeSampleRate(rate->currentData().toDouble()); });
    return sheet.dialog;
}

QDialog* makeTimePitchSheet(EditorModel& model, QWidget* parent) {
    Sheet sheet(parent, QDialog::tr("Time & Pitch"), QStringLiteral("timePitchSheet"));
    auto* tempo = new QDoubleSpinBox(sheet.dialog);
    tempo->setRange(25, 400);
    tempo->setDecimals(0);
    tempo->setValue(100);
    tempo->setSuffix(QStringLiteral(" %"));
    sheet.form->addRow(QDialog::tr("Tempo"), tempo);
    auto* semitones = new QDoubleSpinBox(sheet.dialog);
    semitones->setRange(-24, 24);
    semitones->setDecimals(0);
    semitones->setSuffix(QStringLiteral(" st"));
    sheet.form->addRow(QDialog::tr("Pitch"), semitones);
    auto* cents = new QDoubleSpinBox(sheet.dialog);
    cents->setRange(-100, 100);
    cents->setDecimals(0);
    cents->setSuffix(QStringLiteral(" ct"));
    sheet.form->addRow(QDialog::tr("Fine"), cents);
    auto* length = new QLabel(sheet.dialog);
    sheet.form->addRow(QDialog::tr("Length"), length);
    const double seconds = model.content().sampleRate() > 0
                               ? double(model.content().frameCount()) / model.content().sampleRate()
                               : 0.0;
    const auto update = [length, tempo, seconds] {
        length->setText(QStringLiteral("%1 s").arg(seconds / (tempo->value() / 100), 0, 'f', 3));
    };
    QObject::connect(tempo, &QDoubleSpinBox::valueChanged, length, update);
    update();
    sheet.addNote(
        QDialog::tr("Tempo and pitch are independent: change speed without affecting pitch, or transpose "
                    "without changing length."));
    tempo->setFocus();
    sheet.finish(QDialog::tr("Apply"), [&model, tempo, semitones, cents] {
        model.timePitch(tempo->value() / 100, semitones->value() * 100 + cents->value());
    });
    return sheet.dialog;
}

FadeCurvePreview::FadeCurvePreview(QWidget* parent) : QWidget(parent) {
    static const bool installed = [] {
        QAccessible::installFactory(fadeCurveAccessible);
        return true;
    }();
    (void)installed;
    setAccessibleName(tr("Fade curve"));
    setMinimumSize(160, 60);
}

void FadeCurvePreview::setFade(FadeDirection direction, FadeShape shape) {
    direction_ = direction;
    shape_ = shape;
    update();
    QAccessibleValueChangeEvent event(this, accessibleValue());
    QAccessible::updateAccessibility(&event);
}

QString FadeCurvePreview::accessibleValue() const {
    return QStringLiteral("%1, %2").arg(direction_ == FadeDirection::fadeIn ? tr("Fade In") : tr("Fade Out"),
                                        text(displayName(shape_)));
}

void FadeCurvePreview::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.fillRect(rect(), palette().base());
    const QRectF area = QRectF(rect()).adjusted(4, 4, -4, -4);
    QPainterPath path;
    const int steps = std::max(2, int(area.width()));
    for (int i = 0; i <= steps; ++i) {
        const double t = double(i) / steps;
        const double g = gain(shape_, direction_ == FadeDirection::fadeIn ? t : 1 - t);
        const QPointF point(area.left() + t * area.width(), area.bottom() - g * area.height());
        i == 0 ? path.moveTo(point) : path.lineTo(point);
    }
    painter.setPen(QPen(palette().highlight().color(), 2));
    painter.drawPath(path);
}

} // namespace harlune
