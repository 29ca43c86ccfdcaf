#pragma once

#include <QMainWindow>

namespace harlune {

class AudioDocument;
class OverviewView;

/// The window of one document. For now it shows the overview of the whole file under a title
/// that names the document.
class MainWindow final : public QMainWindow {
    Q_OBJECT

public:
    /// The document must outlive the window.
    explicit MainWindow(AudioDocument& document, QWidget* parent = nullptr);

    OverviewView& overview() { return *overview_; }

private:
    void updateTitle();

    AudioDocument& document_;
    OverviewView* overview_;
};

} // namespace harlune
