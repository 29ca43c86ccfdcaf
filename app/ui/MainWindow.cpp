#include "ui/MainWindow.h"

#include "document/AudioDocument.h"
#include "ui/OverviewView.h"

#include <QKeySequence>
#include <QMessageBox>
#include <QShortcut>

namespace harlune {

MainWindow::MainWindow(AudioDocument& document, QWidget* parent)
    : QMainWindow(parent), document_(document), overview_(new OverviewView(document.model(), this)) {
    setCentralWidget(overview_);
    resize(900, 300);
    updateTitle();
    connect(&document_, &AudioDocument::opened, this, &MainWindow::updateTitle);
    connect(&document_, &AudioDocument::written, this, &MainWindow::updateTitle);

    EditorModel& model = document_.model();
    // Space plays from the cursor and stops where the listener is, as the transport's toggle.
    auto* playKey = new QShortcut(QKeySequence(Qt::Key_Space), this);
    connect(playKey, &QShortcut::activated, this, [&model] { model.togglePlayback(); });
    model.setPresentError([this](const std::exception& error) { presentError(error); });
}

MainWindow::~MainWindow() {
    document_.model().setPresentError({});
}

void MainWindow::presentError(const std::exception& error) {
    // Window-modal and not waited for: the failure never blocks the event loop that reported it.
    auto* box = new QMessageBox(QMessageBox::Warning, document_.displayName(),
                                QString::fromUtf8(error.what()), QMessageBox::Ok, this);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

void MainWindow::updateTitle() {
    setWindowTitle(document_.displayName());
}

} // namespace harlune
