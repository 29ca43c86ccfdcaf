#include "ui/SingleInstance.h"

#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <unistd.h>

namespace harlune {

namespace {
constexpr int connectMilliseconds = 1000;
constexpr int transferMilliseconds = 3000;
} // namespace

QString SingleInstance::socketName() {
    QString display = qEnvironmentVariable("DISPLAY");
    if (display.isEmpty())
        display = qEnvironmentVariable("WAYLAND_DISPLAY");
    display.replace(QLatin1Char('/'), QLatin1Char('_'));
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty())
        return QDir(runtime).filePath(QStringLiteral("harlune-%1").arg(display));
    return QDir(QDir::tempPath()).filePath(QStringLiteral("harlune-%1-%2").arg(getuid()).arg(display));
}

SingleInstance::SingleInstance(QString name, QObject* parent) : QObject(parent), name_(std::move(name)) {}

bool SingleInstance::forward(const QStringList& files) {
    QLocalSocket socket;
    socket.connectToServer(name_);
    if (!socket.waitForConnected(connectMilliseconds)) {
        // Nobody listens: the socket file, if any, is what a crashed instance left behind.
        QLocalServer::removeServer(name_);
        return false;
    }
    socket.write(files.join(QLatin1Char('\n')).toUtf8());
    socket.write("\n\n");
    if (!socket.waitForBytesWritten(transferMilliseconds))
        return false;
    // The instance answers once it has taken the files.
    return socket.waitForReadyRead(transferMilliseconds) && socket.readAll().startsWith("ok");
}

bool SingleInstance::listen() {
    server_ = new QLocalServer(this);
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server_->listen(name_)) {
        QLocalServer::removeServer(name_);
        if (!server_->listen(name_))
            return false;
    }
    connect(server_, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* socket = server_->nextPendingConnection()) {
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
                socket->setProperty("buffer", socket->property("buffer").toByteArray() + socket->readAll());
                const QByteArray buffer = socket->property("buffer").toByteArray();
                if (!buffer.endsWith("\n\n"))
                    return;
                QStringList files;
                for (const QByteArray& line : buffer.split('\n'))
                    if (!line.isEmpty())
                        files << QString::fromUtf8(line);
                socket->write("ok\n");
                socket->flush();
                Q_EMIT filesReceived(files);
            });
        }
    });
    return true;
}

} // namespace harlune
