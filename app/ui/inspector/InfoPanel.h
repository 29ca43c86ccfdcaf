#pragma once

#include "dsp/SignalStats.h"
#include "editor/BackgroundJob.h"

#include <QString>
#include <QWidget>
#include <optional>
#include <vector>

class QFormLayout;
class QLabel;
class QVBoxLayout;

namespace harlune {

class EditorModel;

/// The file's facts and the signal statistics of the file or the selection.
///
/// Statistics are of the audio as heard (with its envelopes), computed on a background job after
/// each change of audio or selection; a result of an older audio version is dropped. Value labels
/// carry their row and channel as accessible name and their text as description.
class InfoPanel final : public QWidget {
    Q_OBJECT

public:
    /// Milliseconds of quiet before the statistics are computed.
    static constexpr int statsDelayMs = 150;

    explicit InfoPanel(EditorModel& model, QWidget* parent = nullptr);

    /// The shown value of a "File" row ("Name", "Codec", ...), absent when the row is hidden.
    std::optional<QString> fileValue(const QString& row) const;
    /// "Signal (entire file)" or "Signal (selection)".
    QString signalTitle() const;
    /// The shown value of a signal row ("Peak", "RMS", "DC offset") of a channel, absent when not
    /// shown (before the first statistics, or no such channel).
    std::optional<QString> signalValue(int channel, const QString& row) const;
    bool isComputing() const { return statsJob_.isRunning(); }

private:
    struct Figures {
        SignalStats stats;
        bool ofSelection = false;
    };

    void updateFileRows();
    void requestStats();
    void showStats(const Figures& figures);

    EditorModel& model_;
    QFormLayout* fileForm_ = nullptr;
    std::vector<std::pair<QString, QLabel*>> fileValues_;
    QLabel* signalTitle_ = nullptr;
    QVBoxLayout* signalRows_ = nullptr;
    QWidget* signalBox_ = nullptr;
    /// Per channel: row title and value label.
    std::vector<std::vector<std::pair<QString, QLabel*>>> signalValues_;
    BackgroundJob statsJob_;
};

} // namespace harlune
