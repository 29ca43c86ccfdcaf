#include "ui/MainWindow.h"

#include "document/AudioDocument.h"
#include "ui/OverviewView.h"

namespace harlune {

MainWindow::MainWindow(AudioDocument& document, QWidget* parent)
    : QMainWindow(parent), document_(document), overview_(new OverviewView(document.model(), this)) {
    setCentralWidget(overview_);
    resize(900, 300);
    updateTitle();
    connect(&document_, &AudioDocument::opened, this, &MainWindow::updateTitle);
    connect(&document_, &AudioDocument::written, this, &MainWindow::updateTitle);
}

void MainWindow::updateTitle() {
    setWindowTitle(document_.displayName());
}

} // namespace harlune
