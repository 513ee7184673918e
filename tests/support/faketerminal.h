#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QTcpServer>

class QTcpSocket;

// A card terminal on loopback, scripted byte by byte: every connection it accepts runs
// the same script (wait for so many bytes, reply after a delay, hang up) and keeps what
// the service sent, when, and when the service closed its side.
class FakeTerminal : public QObject {
    Q_OBJECT
public:
    struct Step {
        enum class Kind { AwaitBytes, Reply, HangUp } kind;
        qsizetype count = 0; // AwaitBytes: total bytes received on the connection so far
        QByteArray bytes;    // Reply
        int delayMs = 0;     // Reply, HangUp: after the previous step
    };
    static Step awaitBytes(qsizetype total) { return {Step::Kind::AwaitBytes, total, {}, 0}; }
    static Step reply(const QByteArray &bytes, int delayMs = 0) {
        return {Step::Kind::Reply, 0, bytes, delayMs};
    }
    static Step hangUp(int delayMs = 0) { return {Step::Kind::HangUp, 0, {}, delayMs}; }

    struct Connection {
        QByteArray received;
        QList<qint64> receivedAtMs;  // one entry per byte of `received`
        QList<qint64> replySentAtMs; // one entry per Reply step carried out
        qint64 acceptedAtMs = -1;
        qint64 closedAtMs = -1; // when the connection ended (either side)
        bool hungUpByTerminal = false;
    };

    explicit FakeTerminal(QObject *parent = nullptr);
    ~FakeTerminal() override;
    bool listen(quint16 port = 0, const QHostAddress &address = QHostAddress::LocalHost);
    quint16 port() const { return server.serverPort(); }
    void setScript(const QList<Step> &steps) { script = steps; }

    const QList<Connection> &connections() const { return all; }
    int closedCount() const;
    int openCount() const;
    qint64 nowMs() const { return clock.elapsed(); }

private:
    void advance(QTcpSocket *socket, qsizetype index);

    QTcpServer server;
    QElapsedTimer clock;
    QList<Step> script;
    QList<Connection> all;
    QList<qsizetype> nextStep;
};
