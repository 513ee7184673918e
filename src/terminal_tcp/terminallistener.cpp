#include "terminallistener.h"

#include "answerpeers.h"
#include "common/cp949.h"
#include "common/log.h"
#include "net/keepaccepting.h"
#include "tcpclient.h"
#include "terminalanswers.h"
#include "vendorsenders.h"

#include <QElapsedTimer>
#include <QTcpSocket>

TerminalListener::TerminalListener(const QString &vendor, const QString &deviceName, bool announcesClients,
                                   QObject *parent)
    : QObject(parent), deviceName(deviceName), announcesClients(announcesClients) {
    connect(&server, &QTcpServer::newConnection, this, &TerminalListener::acceptPending);
    new KeepAccepting(&server, QStringLiteral("%1 answer listener").arg(vendor));
}

bool TerminalListener::listen(const QHostAddress &address, quint16 port) {
    return server.listen(address, port);
}

void TerminalListener::answerArrived(const QByteArray &frame) {
    const std::optional<QString> text = cp949::decode(TerminalAnswers::listenerAnswerBytes(frame));
    if (!text) {
        logLine(QStringLiteral("euc failed"));
        return;
    }
    emit answerReady(TerminalAnswer{*text, deviceName});
}

bool TerminalListener::refused(QTcpSocket *socket) const {
    const std::optional<AnswerPeers> peers = AnswerPeers::fromSettings();
    if (!peers || peers->allows(socket->peerAddress(), VendorSenders::terminalAddress()))
        return false;
    // One table for both listeners: an address is named once a minute, whichever it tried.
    static RefusedPeers refusedPeers;
    static const QElapsedTimer clock = [] {
        QElapsedTimer started;
        started.start();
        return started;
    }();
    // The listener is bound to one address of its own family: the peer's is as plain as it gets.
    const QHostAddress peer = socket->peerAddress();
    if (refusedPeers.note(peer.toString(), clock.elapsed()))
        logLine(QStringLiteral("terminal answer refused from %1: not in %2")
                    .arg(peer.toString(), Settings::name(Settings::Key::TerminalAnswerPeers)));
    return true;
}

void TerminalListener::acceptPending() {
    while (QTcpSocket *socket = server.nextPendingConnection()) {
        if (refused(socket)) {
            socket->abort();
            socket->deleteLater();
            continue;
        }
        if (announcesClients)
            logLine(QStringLiteral("Client Comes!"));
        // The answer may come in pieces; it is read until its frame is whole (or the
        // terminal pauses or hangs up), then the connection is let go without a reply.
        auto *client = new TcpClient(socket, this);
        connect(client, &TcpClient::finished, client, &QObject::deleteLater);
        client->read(readLimit, silentConnectionLimitMs, TerminalAnswers::listenerFrameEnd,
                     [this, client](const std::optional<QByteArray> &frame) {
                         if (!frame && !client->hungUp()) {
                             client->release(); // silent all along: nothing for the POS
                             return;
                         }
                         // A terminal that hangs up before saying anything has delivered an
                         // empty frame.
                         client->close();
                         answerArrived(frame.value_or(QByteArray()));
                     });
    }
}
