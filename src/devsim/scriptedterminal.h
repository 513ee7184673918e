#pragma once

#include "answercall.h"
#include "wiretext.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QTcpServer>

class QTcpSocket;

namespace devsim {

// A card terminal on TCP, scripted byte by byte: every connection it accepts runs the same
// script (wait for the request or for so many bytes, reply after a delay, deliver an answer
// on a connection of its own, hang up) and keeps what the peer sent, when, and when the
// peer closed its side. The vendors' exchanges are scripts of it (vendorscripts.h); so are
// terminals that misbehave: one that never answers, or hangs up half way.
class ScriptedTerminal : public QObject {
    Q_OBJECT
public:
    struct Step {
        enum class Kind { AwaitBytes, AwaitRequest, AwaitMore, Reply, Deliver, HangUp } kind;
        qsizetype count = 0;  // AwaitBytes: total bytes received so far; AwaitMore: bytes after those
                              // already awaited
        QByteArray bytes;     // Reply, Deliver
        int delayMs = 0;      // Reply, Deliver, HangUp: after the previous step
        QHostAddress address; // Deliver
        quint16 port = 0;     // Deliver
        Pieces pieces = {};   // Reply, Deliver: how the network cuts the bytes up
    };
    static Step awaitBytes(qsizetype total) { return {Step::Kind::AwaitBytes, total, {}, 0, {}, 0}; }
    // Whatever arrives next, taken whole as the request.
    static Step awaitRequest() { return {Step::Kind::AwaitRequest, 0, {}, 0, {}, 0}; }
    static Step awaitMore(qsizetype count) { return {Step::Kind::AwaitMore, count, {}, 0, {}, 0}; }
    // The next step comes once the last piece is out.
    static Step reply(const QByteArray &bytes, int delayMs = 0, const Pieces &pieces = {}) {
        return {Step::Kind::Reply, 0, bytes, delayMs, {}, 0, pieces};
    }
    // Connects to address:port, sends the bytes and closes, as a terminal that answers on
    // the POS computer's own listener does. The script goes on without waiting for it.
    static Step deliver(const QHostAddress &address, quint16 port, const QByteArray &bytes, int delayMs = 0,
                        const Pieces &pieces = {}) {
        return {Step::Kind::Deliver, 0, bytes, delayMs, address, port, pieces};
    }
    static Step hangUp(int delayMs = 0) { return {Step::Kind::HangUp, 0, {}, delayMs, {}, 0}; }

    struct Connection {
        QByteArray received;
        QList<qint64> receivedAtMs;  // one entry per byte of `received`
        QList<qint64> replySentAtMs; // one entry per Reply step carried out (its first piece)
        qint64 acceptedAtMs = -1;
        qint64 closedAtMs = -1; // when the connection ended (either side)
        bool hungUpByTerminal = false;
        qsizetype awaited = 0; // bytes the script has taken so far
    };

    explicit ScriptedTerminal(QObject *parent = nullptr);
    ~ScriptedTerminal() override;
    bool listen(quint16 port = 0, const QHostAddress &address = QHostAddress::LocalHost);
    quint16 port() const { return server.serverPort(); }
    // Room for that many connections waiting to be accepted; set before listen(). A burst
    // larger than the default 50 would otherwise have some of its connects dropped by the
    // kernel and retried a second later, past the caller's connect time-out.
    void setListenBacklogSize(int size) { server.setListenBacklogSize(size); }
    QString errorString() const { return server.errorString(); }
    void setScript(const QList<Step> &steps) { script = steps; }
    // Each chunk received and each reply or delivery sent goes to `sink` as one line,
    // under the name `who`.
    void setLog(const QString &who, LineSink sink) {
        name = who;
        log = std::move(sink);
    }

    const QList<Connection> &connections() const { return all; }
    // The answers delivered on connections of the terminal's own, oldest first.
    const QList<AnswerCall *> &deliveries() const { return delivered; }
    int closedCount() const;
    int openCount() const;
    qint64 nowMs() const { return clock.elapsed(); }

private:
    void advance(QTcpSocket *socket, qsizetype index);
    void startDelivery(const Step &step);
    void note(const QString &what, const QByteArray &bytes);
    void take(QTcpSocket *socket, qsizetype index);

    QTcpServer server;
    QElapsedTimer clock;
    QList<Step> script;
    QList<Connection> all;
    QList<qsizetype> nextStep;
    QList<AnswerCall *> delivered;
    QString name = QStringLiteral("terminal");
    LineSink log;
};

} // namespace devsim
