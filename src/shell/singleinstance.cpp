#include "singleinstance.h"

#include "common/userdefaults.h"

#include <QCryptographicHash>
#include <QDir>
#include <QLocalSocket>
#include <unistd.h>

namespace {

const QByteArray showRequest = "show\n";
const QByteArray shownReply = "shown\n";
const QByteArray cannotShowReply = "cannot-show\n";

} // namespace

QString SingleInstance::socketPath() {
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    const QString folder = QDir::isAbsolutePath(runtime) ? runtime : QDir::tempPath();
    const QByteArray settings = UserDefaults::standard().fileName().toUtf8();
    const QByteArray tag = QCryptographicHash::hash(settings, QCryptographicHash::Sha256).toHex().left(12);
    return QStringLiteral("%1/teranocounter-%2-%3").arg(folder).arg(getuid()).arg(QString::fromLatin1(tag));
}

SingleInstance::Answer SingleInstance::askRunningInstanceToShow(const QString &path, int timeoutMs) {
    QLocalSocket socket;
    socket.connectToServer(path);
    if (!socket.waitForConnected(timeoutMs))
        return Answer::NoneRunning;
    socket.write(showRequest);
    socket.flush();
    QByteArray reply;
    while (!reply.endsWith('\n') && socket.waitForReadyRead(timeoutMs))
        reply += socket.readAll();
    return reply == shownReply ? Answer::Shown : Answer::CannotShow;
}

bool SingleInstance::listen(const QString &path, std::function<bool()> show) {
    showPages = std::move(show);
    server.setSocketOptions(QLocalServer::UserAccessOption);
    if (!server.listen(path)) {
        // Only a socket nobody answers on gets here (askRunningInstanceToShow came first):
        // the file a killed service left behind.
        QLocalServer::removeServer(path);
        if (!server.listen(path))
            return false;
    }
    connect(&server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *socket = server.nextPendingConnection()) {
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QLocalSocket::readyRead, socket, [this, socket] {
                if (!socket->canReadLine())
                    return;
                const QByteArray request = socket->readLine();
                const bool shown = request == showRequest && showPages && showPages();
                socket->write(shown ? shownReply : cannotShowReply);
                socket->disconnectFromServer();
            });
        }
    });
    return true;
}
