#include "ui/inspector/InspectorView.h"

#include "editor/EditorModel.h"
#include "ui/SymbolIcons.h"
#include "ui/inspector/InfoPanel.h"
#include "ui/inspector/LoudnessPanel.h"
#include "ui/inspector/MarkersPanel.h"
#include "ui/inspector/RackPanel.h"
#include "ui/inspector/SpectrumPanel.h"

#include <QAction>
#include <QEvent>
#include <QScrollArea>
#include <QTabBar>
#include <QTabWidget>

namespace harlune {

namespace {

// Panels are taller than a small window: each scrolls on its own.
QWidget* scrolling(QWidget* panel) {
    auto* area = new QScrollArea;
    area->setWidgetResizable(true);
    area->setFrameShape(QFrame::NoFrame);
    area->setWidget(panel);
    return area;
}

} // namespace

InspectorView::InspectorView(EditorModel& model, QWidget* parent)
    : QDockWidget(tr("Inspector"), parent), model_(model) {
    setObjectName(QStringLiteral("Inspector"));
    setFeatures(QDockWidget::DockWidgetClosable | QDockWidget::DockWidgetMovable);
    setAllowedAreas(Qt::LeftDockWidgetArea | Qt::RightDockWidgetArea);
    tabs_ = new QTabWidget(this);
    tabs_->setObjectName(QStringLiteral("InspectorTabs"));
    tabs_->setDocumentMode(true);
    loudness_ = new LoudnessPanel(model);
    spectrum_ = new SpectrumPanel(model);
    info_ = new InfoPanel(model);
    markers_ = new MarkersPanel(model);
    rack_ = new RackPanel(model);
    // In `InspectorTab`'s order, so a tab's index is the enum's value.
    tabs_->addTab(scrolling(loudness_), tr("Loudness"));
    tabs_->addTab(scrolling(spectrum_), tr("Spectrum"));
    tabs_->addTab(scrolling(info_), tr("Info"));
    tabs_->addTab(markers_, tr("Markers"));
    tabs_->addTab(scrolling(rack_), tr("Effects"));
    const char* const icons[] = {"gauge.with.dots.needle.67percent", "waveform.path.ecg", "info.circle",
                                 "flag", "sparkles"};
    for (int tab = 0; tab < tabs_->count(); ++tab) {
        tabs_->setTabIcon(tab, SymbolIcons::icon(QString::fromLatin1(icons[tab])));
        tabs_->tabBar()->setAccessibleTabName(tab, tabs_->tabText(tab));
        tabs_->setTabToolTip(tab, tabs_->tabText(tab));
    }
    setWidget(tabs_);
    tabs_->installEventFilter(this);

    connect(tabs_, &QTabWidget::currentChanged, this, [this](int index) {
        if (index >= 0)
            model_.setInspectorTab(static_cast<InspectorTab>(index));
    });
    // The toggle action fires on the close button too, and not when the window is minimised.
    connect(toggleViewAction(), &QAction::toggled, this, [this](bool shown) {
        if (shown != model_.showInspector())
            model_.setShowInspector(shown);
    });
    connect(&model, &EditorModel::showInspectorChanged, this, &InspectorView::followModel);
    connect(&model, &EditorModel::inspectorTabChanged, this, &InspectorView::followModel);
    followModel();
}

bool InspectorView::eventFilter(QObject* watched, QEvent* event) {
    if (watched == tabs_ && (event->type() == QEvent::Resize || event->type() == QEvent::FontChange ||
                             event->type() == QEvent::StyleChange))
        fitTabTitles();
    return QDockWidget::eventFilter(watched, event);
}

void InspectorView::fitTabTitles() {
    QTabBar* bar = tabs_->tabBar();
    for (int tab = 0; tab < bar->count(); ++tab)
        bar->setTabText(tab, bar->accessibleTabName(tab));
    if (bar->sizeHint().width() <= tabs_->width())
        return;
    for (int tab = 0; tab < bar->count(); ++tab)
        bar->setTabText(tab, QString());
}

void InspectorView::followModel() {
    tabs_->setCurrentIndex(static_cast<int>(model_.inspectorTab()));
    setVisible(model_.showInspector());
}

} // namespace harlune
