#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QTcpServer>

class QTcpSocket;

// A network receipt printer on loopback: accepts connections, keeps every byte each one
// sends, and notes when the bytes came and when the sender closed. It can also answer
// each connection with a fixed reply.
class FakePrinter : public QObject {
    Q_OBJECT
public:
    struct Connection {
        QByteArray received;
        qint64 acceptedAtMs = -1;
        qint64 lastByteAtMs = -1;
        qint64 closedAtMs = -1; // when the service closed its side
    };

    explicit FakePrinter(QObject *parent = nullptr);
    ~FakePrinter() override;
    bool listen(quint16 port = 0, const QHostAddress &address = QHostAddress::LocalHost);
    quint16 port() const { return server.serverPort(); }
    void setReply(const QByteArray &bytes) { reply = bytes; }

    const QList<Connection> &connections() const { return all; }
    int closedCount() const;
    qint64 nowMs() const { return clock.elapsed(); }

private:
    QTcpServer server;
    QElapsedTimer clock;
    QList<Connection> all;
    QByteArray reply;
};
