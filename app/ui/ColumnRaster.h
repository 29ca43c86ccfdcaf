#pragma once

#include <QImage>
#include <QRect>
#include <span>

namespace harlune {

/// Writes the waveform's one-pixel-wide columns straight into a premultiplied 32-bit image.
///
/// Tall one-pixel rectangles cost the painter a span per row; here they are plain stores. Peaks
/// and RMS cores go in one pass over the rows, the core winning where both cover a pixel, so a
/// full-height drawing reads and writes each pixel once. Only rows `firstRow ..< endRow` and
/// columns inside the image are touched; colours are opaque.
void rasterColumns(QImage& image, int firstRow, int endRow, std::span<const QRect> peaks, QRgb peak,
                   std::span<const QRect> cores, QRgb core);

} // namespace harlune
