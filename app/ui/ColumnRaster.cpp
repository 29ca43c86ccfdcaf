#include "ui/ColumnRaster.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace harlune {
namespace {

/// Each column's rows `top ..< bottom`; empty (0, 0) where no rectangle names the column.
struct Spans {
    std::vector<int> tops;
    std::vector<int> bottoms;
    int top;
    int bottom;
    int64_t area = 0;

    Spans(int width, int firstRow, int endRow, std::span<const QRect> rects)
        : tops(static_cast<size_t>(width)), bottoms(static_cast<size_t>(width)), top(endRow),
          bottom(firstRow) {
        for (const QRect& rect : rects) {
            if (rect.x() < 0 || rect.x() >= width)
                continue;
            const int from = std::max(rect.top(), firstRow);
            const int to = std::min(rect.top() + rect.height(), endRow);
            if (from >= to)
                continue;
            tops[static_cast<size_t>(rect.x())] = from;
            bottoms[static_cast<size_t>(rect.x())] = to;
            top = std::min(top, from);
            bottom = std::max(bottom, to);
            area += to - from;
        }
    }
};

/// Straight down each column: fewer stores than whole rows when the columns are short.
void writeDown(QImage& image, const Spans& spans, QRgb value) {
    const auto stride = static_cast<size_t>(image.bytesPerLine() / 4);
    auto* pixels = reinterpret_cast<QRgb*>(image.bits());
    for (size_t x = 0; x < spans.tops.size(); ++x) {
        QRgb* pixel = pixels + static_cast<size_t>(spans.tops[x]) * stride + x;
        for (int y = spans.tops[x]; y < spans.bottoms[x]; ++y, pixel += stride)
            *pixel = value;
    }
}

} // namespace

void rasterColumns(QImage& image, int firstRow, int endRow, std::span<const QRect> peaks, QRgb peak,
                   std::span<const QRect> cores, QRgb core) {
    firstRow = std::max(firstRow, 0);
    endRow = std::min(endRow, image.height());
    const int width = image.width();
    if (firstRow >= endRow || width <= 0)
        return;
    const Spans peakSpans(width, firstRow, endRow, peaks);
    const Spans coreSpans(width, firstRow, endRow, cores);
    const int top = std::min(peakSpans.top, coreSpans.top);
    const int bottom = std::max(peakSpans.bottom, coreSpans.bottom);
    if (top >= bottom)
        return;
    if ((peakSpans.area + coreSpans.area) * 8 < static_cast<int64_t>(width) * (bottom - top)) {
        writeDown(image, peakSpans, peak);
        writeDown(image, coreSpans, core);
        return;
    }
    // Row by row, so that stores run along memory; the inner loop is compares and selects that
    // the compiler vectorises.
    const int* __restrict peakTops = peakSpans.tops.data();
    const int* __restrict peakBottoms = peakSpans.bottoms.data();
    const int* __restrict coreTops = coreSpans.tops.data();
    const int* __restrict coreBottoms = coreSpans.bottoms.data();
    for (int y = top; y < bottom; ++y) {
        auto* __restrict row = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < width; ++x) {
            const bool inCore = y >= coreTops[x] && y < coreBottoms[x];
            const bool inPeak = y >= peakTops[x] && y < peakBottoms[x];
            row[x] = inCore ? core : (inPeak ? peak : row[x]);
        }
    }
}

} // namespace harlune
