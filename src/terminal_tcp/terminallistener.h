#pragma once

#include <QHostAddress>
#include <QObject>
#include <QString>
#include <QTcpServer>

#include "common/terminalchannel.h"

class QTcpSocket;

// Takes the answers that a KICC or SMARTRO terminal delivers on a connection of its own.
// Each connection carries one answer: up to 1024 bytes, of which the first 5 and the last
// 3 are the terminal's framing, gathered from as many pieces as the network cuts it into. The text between
// them, converted from code page 949, is given as answerReady for the POS; a frame shorter than 9 bytes is
// given as an empty answer. Connections are served side by side, so a terminal that connects and says
// nothing delays no one else's answer.
class TerminalListener : public QObject {
    Q_OBJECT
public:
    static constexpr qint64 readLimit = 1024;
    // A connection that has said nothing by then is closed without an answer.
    static constexpr int silentConnectionLimitMs = 60'000;

    // `vendor` names the listener in its lines ("KICC answer listener on port 13189 ...").
    TerminalListener(const QString &vendor, const QString &deviceName, bool announcesClients,
                     QObject *parent = nullptr);

    bool listen(const QHostAddress &address, quint16 port);
    QString errorString() const { return server.errorString(); }
    QHostAddress serverAddress() const { return server.serverAddress(); }
    quint16 serverPort() const { return server.serverPort(); }

signals:
    void answerReady(const TerminalAnswer &answer);

private:
    void acceptPending();
    // With TERMINAL_ANSWER_PEERS set, a connection from anyone else is closed unread.
    bool refused(QTcpSocket *socket) const;
    void answerArrived(const QByteArray &frame);

    QTcpServer server;
    QString deviceName;
    bool announcesClients;
};
