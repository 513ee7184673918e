#include "terminallistener.h"

#include "cp949.h"
#include "log.h"
#include "notificationcenter.h"
#include "notificationnames.h"
#include "terminalanswers.h"
#include "terminalresponse.h"

#include <QTcpSocket>
#include <QTimer>
#include <memory>

TerminalListener::TerminalListener(const QString &deviceName, bool announcesClients, QObject *parent)
    : QObject(parent), deviceName(deviceName), announcesClients(announcesClients) {
    connect(&server, &QTcpServer::newConnection, this, &TerminalListener::acceptPending);
}

bool TerminalListener::listen(const QHostAddress &address, quint16 port) {
    return server.listen(address, port);
}

void TerminalListener::answerArrived(const QByteArray &frame) const {
    const std::optional<QString> text = cp949::decode(TerminalAnswers::listenerAnswerBytes(frame));
    if (!text) {
        logLine(QStringLiteral("euc failed"));
        return;
    }
    NotificationCenter::defaultCenter().post(NotificationName::WEBSOCKET,
                                             terminalResponse(*text, deviceName));
}

void TerminalListener::acceptPending() {
    while (QTcpSocket *socket = server.nextPendingConnection()) {
        if (announcesClients)
            logLine(QStringLiteral("Client Comes!"));
        socket->setParent(this);
        auto *silence = new QTimer(socket);
        silence->setSingleShot(true);
        // The answer is what the first read brings; the connection is then let go without
        // a reply. A terminal that hangs up before saying anything has delivered an empty
        // frame.
        auto taken = std::make_shared<bool>(false);
        const auto take = [this, socket, silence, taken] {
            if (*taken)
                return;
            *taken = true;
            silence->stop();
            const QByteArray frame = socket->read(readLimit);
            socket->disconnectFromHost();
            if (socket->state() == QAbstractSocket::UnconnectedState)
                socket->deleteLater();
            answerArrived(frame);
        };
        connect(socket, &QTcpSocket::readyRead, this, take);
        connect(socket, &QTcpSocket::disconnected, this, [socket, take] {
            take();
            socket->deleteLater();
        });
        connect(silence, &QTimer::timeout, this, [socket, taken] {
            *taken = true;
            socket->abort();
            socket->deleteLater();
        });
        silence->start(silentConnectionLimitMs);
        if (socket->bytesAvailable() > 0)
            take();
    }
}
