#include "ui/SymbolIcons.h"

#include <QFile>
#include <QGuiApplication>
#include <QIconEngine>
#include <QImage>
#include <QPainter>
#include <QPalette>
#include <QPixmap>
#include <QSvgRenderer>
#include <array>
#include <utility>

// The resources live in this static library: their initialiser must be called by name.
static void initialiseSymbolResources() {
    Q_INIT_RESOURCE(symbol_icons);
}

namespace harlune {

namespace {

// Symbol name to its file among the resources. The drawings use black for the symbol, replaced
// by the wanted colour, and white for cut-outs.
constexpr std::array<std::pair<const char*, const char*>, 14> symbols{{
    {"gauge.with.dots.needle.67percent", "gauge-67.svg"},
    {"gauge.with.dots.needle.33percent", "gauge-33.svg"},
    {"waveform.path.ecg", "waveform-ecg.svg"},
    {"info.circle", "info-circle.svg"},
    {"flag", "flag.svg"},
    {"flag.fill", "flag-fill.svg"},
    {"sparkles", "sparkles.svg"},
    {"plus", "plus.svg"},
    {"xmark.circle.fill", "xmark-circle-fill.svg"},
    {"slider.horizontal.3", "slider-horizontal-3.svg"},
    {"waveform.badge.exclamationmark", "waveform-badge-exclamationmark.svg"},
    {"playpause.fill", "playpause-fill.svg"},
    {"stop.fill", "stop-fill.svg"},
    {"sidebar.right", "sidebar-right.svg"},
}};

// Renders the drawing in the colour of the moment; a parse per paint is cheap at this size.
class SymbolIconEngine final : public QIconEngine {
public:
    SymbolIconEngine(QByteArray svg, std::optional<QColor> colour) : svg_(std::move(svg)), colour_(colour) {}

    void paint(QPainter* painter, const QRect& rect, QIcon::Mode mode, QIcon::State) override {
        QByteArray text = svg_;
        text.replace("#000000", colourFor(mode).name(QColor::HexRgb).toLatin1());
        QSvgRenderer renderer(text);
        renderer.render(painter, QRectF(rect));
    }

    QPixmap pixmap(const QSize& size, QIcon::Mode mode, QIcon::State state) override {
        QImage image(size, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        paint(&painter, QRect(QPoint(0, 0), size), mode, state);
        painter.end();
        return QPixmap::fromImage(image);
    }

    QIconEngine* clone() const override { return new SymbolIconEngine(svg_, colour_); }

private:
    QColor colourFor(QIcon::Mode mode) const {
        if (colour_)
            return *colour_;
        const QPalette palette = QGuiApplication::palette();
        return palette.color(mode == QIcon::Disabled ? QPalette::Disabled : QPalette::Active,
                             QPalette::WindowText);
    }

    QByteArray svg_;
    std::optional<QColor> colour_;
};

} // namespace

QStringList SymbolIcons::names() {
    QStringList list;
    for (const auto& [name, file] : symbols)
        list << QString::fromLatin1(name);
    return list;
}

QIcon SymbolIcons::icon(const QString& name, std::optional<QColor> colour) {
    static const bool initialised = [] {
        initialiseSymbolResources();
        return true;
    }();
    (void)initialised;
    for (const auto& [symbol, file] : symbols) {
        if (name != QLatin1String(symbol))
            continue;
        QFile svg(QStringLiteral(":/icons/") + QString::fromLatin1(file));
        if (!svg.open(QIODevice::ReadOnly))
            return {};
        QByteArray text = svg.readAll();
        if (!QSvgRenderer(text).isValid())
            return {};
        return QIcon(new SymbolIconEngine(std::move(text), colour));
    }
    return {};
}

} // namespace harlune
