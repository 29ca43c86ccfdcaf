#include "ui/inspector/PaintedWidget.h"

#include <QAccessible>
#include <QAccessibleWidget>

namespace harlune {

namespace {

class PaintedAccessible final : public QAccessibleWidget {
public:
    explicit PaintedAccessible(PaintedWidget* widget) : QAccessibleWidget(widget, QAccessible::Graphic) {}

    QString text(QAccessible::Text kind) const override {
        if (kind == QAccessible::Value)
            return static_cast<const PaintedWidget*>(widget())->accessibleValue();
        return QAccessibleWidget::text(kind);
    }
};

QAccessibleInterface* paintedAccessible(const QString&, QObject* object) {
    if (auto* painted = qobject_cast<PaintedWidget*>(object))
        return new PaintedAccessible(painted);
    return nullptr;
}

} // namespace

PaintedWidget::PaintedWidget(QWidget* parent) : QWidget(parent) {
    static const bool installed = [] {
        QAccessible::installFactory(paintedAccessible);
        return true;
    }();
    (void)installed;
}

void PaintedWidget::valueChanged() {
    const QString value = accessibleValue();
    if (accessibleDescription() != value) {
        setAccessibleDescription(value);
        QAccessibleValueChangeEvent event(this, value);
        QAccessible::updateAccessibility(&event);
    }
    update();
}

} // namespace harlune
