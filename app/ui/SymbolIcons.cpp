#include "ui/SymbolIcons.h"

#include <QFile>
#include <QImage>
#include <QPainter>
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
constexpr std::array<std::pair<const char*, const char*>, 11> symbols{{
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
}};

constexpr std::array<int, 4> pixelSizes{16, 24, 32, 48};

} // namespace

QStringList SymbolIcons::names() {
    QStringList list;
    for (const auto& [name, file] : symbols)
        list << QString::fromLatin1(name);
    return list;
}

QIcon SymbolIcons::icon(const QString& name, const QColor& colour) {
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
        text.replace("#000000", colour.name(QColor::HexRgb).toLatin1());
        QSvgRenderer renderer(text);
        if (!renderer.isValid())
            return {};
        QIcon result;
        for (const int size : pixelSizes) {
            QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
            image.fill(Qt::transparent);
            QPainter painter(&image);
            renderer.render(&painter);
            painter.end();
            result.addPixmap(QPixmap::fromImage(image));
        }
        return result;
    }
    return {};
}

} // namespace harlune
