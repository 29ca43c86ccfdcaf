#include "ui/OverviewView.h"

#include "editor/EditorModel.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QPainter>
#include <algorithm>

namespace harlune {

namespace {

// Reports the view's value (its length) besides the name every widget has.
class OverviewAccessible final : public QAccessibleWidget {
public:
    explicit OverviewAccessible(OverviewView* view) : QAccessibleWidget(view, QAccessible::Graphic) {}

    QString text(QAccessible::Text kind) const override {
        if (kind == QAccessible::Value)
            return static_cast<const OverviewView*>(widget())->accessibleValue();
        return QAccessibleWidget::text(kind);
    }
};

QAccessibleInterface* overviewAccessible(const QString& className, QObject* object) {
    if (className == QLatin1String(OverviewView::staticMetaObject.className()) && object &&
        object->isWidgetType())
        return new OverviewAccessible(static_cast<OverviewView*>(object));
    return nullptr;
}

} // namespace

OverviewView::OverviewView(EditorModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    static const bool installed = [] {
        QAccessible::installFactory(overviewAccessible);
        return true;
    }();
    (void)installed;
    setAccessibleName(QStringLiteral("Overview"));
    setMinimumHeight(60);
    connect(&model_, &EditorModel::contentVersionChanged, this, [this] {
        update();
        QAccessibleValueChangeEvent event(this, accessibleValue());
        QAccessible::updateAccessibility(&event);
    });
}

QString OverviewView::accessibleValue() const {
    return QStringLiteral("%1 frames").arg(model_.content().frameCount());
}

void OverviewView::rebuildColumns() {
    const AudioContent& content = model_.content();
    const int width = std::max(this->width(), 1);
    const int64_t frames = content.frameCount();
    columns_.assign(static_cast<size_t>(content.channelCount()),
                    std::vector<Column>(static_cast<size_t>(width)));
    for (int c = 0; c < content.channelCount(); ++c) {
        for (int x = 0; x < width; ++x) {
            const FrameRange range{frames * x / width, frames * (x + 1) / width};
            if (range.isEmpty())
                continue;
            const PeakSummary peaks = content.peaks(c, range);
            columns_[static_cast<size_t>(c)][static_cast<size_t>(x)] = {peaks.min, peaks.max};
        }
    }
    cachedVersion_ = model_.contentVersion();
    cachedWidth_ = width;
}

void OverviewView::paintEvent(QPaintEvent*) {
    if (cachedVersion_ != model_.contentVersion() || cachedWidth_ != std::max(width(), 1))
        rebuildColumns();
    QPainter painter(this);
    painter.fillRect(rect(), palette().base());
    if (columns_.empty())
        return;
    const int lanes = static_cast<int>(columns_.size());
    const int laneHeight = height() / lanes;
    const QColor wave = palette().highlight().color();
    for (int c = 0; c < lanes; ++c) {
        const int top = c * laneHeight;
        const double middle = top + laneHeight / 2.0;
        const double half = laneHeight / 2.0;
        painter.fillRect(QRect(0, static_cast<int>(middle), width(), 1), palette().mid());
        const auto& lane = columns_[static_cast<size_t>(c)];
        for (int x = 0; x < static_cast<int>(lane.size()); ++x) {
            // Whole-pixel rectangles: far cheaper than paths, and crisp.
            const auto y1 =
                static_cast<int>(middle - std::clamp(lane[static_cast<size_t>(x)].max, -1.0f, 1.0f) * half);
            const auto y2 =
                static_cast<int>(middle - std::clamp(lane[static_cast<size_t>(x)].min, -1.0f, 1.0f) * half);
            painter.fillRect(QRect(x, y1, 1, std::max(y2 - y1, 1)), wave);
        }
    }
}

} // namespace harlune
