#pragma once

#include <QMainWindow>
#include <exception>

namespace harlune {

class AudioDocument;
class OverviewView;

/// The window of one document. For now it shows the overview of the whole file under a title
/// that names the document; Space plays and stops, and the model's failures show as messages.
class MainWindow final : public QMainWindow {
    Q_OBJECT

public:
    /// The document must outlive the window.
    explicit MainWindow(AudioDocument& document, QWidget* parent = nullptr);
    ~MainWindow() override;

    OverviewView& overview() { return *overview_; }

private:
    void updateTitle();
    void presentError(const std::exception& error);

    AudioDocument& document_;
    OverviewView* overview_;
};

} // namespace harlune
