#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

class QLocalServer;

namespace harlune {

/// One running editor per user and display: the clipboard lives in the process, so Paste works
/// across windows only when every document is in the same one. A second start hands its files to
/// the first over a local socket and ends.
class SingleInstance final : public QObject {
    Q_OBJECT

public:
    /// `$XDG_RUNTIME_DIR/harlune-$DISPLAY`, else a name in the temporary folder with the user id.
    static QString socketName();

    explicit SingleInstance(QString name, QObject* parent = nullptr);

    /// Hands `files` (absolute paths) to a running instance; false when none answers, in which
    /// case a socket left by a dead instance has been removed.
    bool forward(const QStringList& files);
    /// Starts answering later starts; false when the socket could not be made.
    bool listen();

Q_SIGNALS:
    /// Files a later start handed over, to open in new windows; empty to bring a window forward.
    void filesReceived(const QStringList& files);

private:
    QString name_;
    QLocalServer* server_ = nullptr;
};

} // namespace harlune
