#pragma once

#include "wiretext.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QTcpServer>

class QTcpSocket;

namespace devsim {

// A network kitchen printer: accepts connections, keeps every byte each one sends and
// prints it as one job when the sender closes, as a real printer does. It notes when the
// bytes came and when the sender closed, and can answer each chunk with a fixed reply.
class Printer : public QObject {
    Q_OBJECT
public:
    struct Connection {
        QByteArray received;
        qint64 acceptedAtMs = -1;
        qint64 lastByteAtMs = -1;
        qint64 closedAtMs = -1; // when the sender closed its side
    };

    explicit Printer(QObject *parent = nullptr);
    ~Printer() override;
    bool listen(quint16 port = 0, const QHostAddress &address = QHostAddress::LocalHost);
    quint16 port() const { return server.serverPort(); }
    QString errorString() const { return server.errorString(); }
    void setReply(const QByteArray &bytes) { reply = bytes; }
    // Room for that many connections waiting to be accepted (a burst of orders at once).
    void setListenBacklogSize(int size) { server.setListenBacklogSize(size); }
    // Each finished job goes to `sink` as one line.
    void setLog(LineSink sink) { log = std::move(sink); }

    const QList<Connection> &connections() const { return all; }
    int closedCount() const;
    qint64 nowMs() const { return clock.elapsed(); }

signals:
    // More bytes of connection `index` (of connections()) have come.
    void bytesReceived(qsizetype index);

private:
    QTcpServer server;
    QElapsedTimer clock;
    QList<Connection> all;
    QByteArray reply;
    LineSink log;
};

} // namespace devsim
