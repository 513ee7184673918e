#include "scriptedterminal.h"

#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

namespace devsim {

namespace {

QString peerOf(const QTcpSocket *socket) {
    return QStringLiteral("%1:%2").arg(socket->peerAddress().toString()).arg(socket->peerPort());
}

} // namespace

ScriptedTerminal::ScriptedTerminal(QObject *parent) : QObject(parent) {
    clock.start();
    connect(&server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = server.nextPendingConnection()) {
            socket->setParent(this);
            const qsizetype index = all.size();
            Connection connection;
            connection.acceptedAtMs = clock.elapsed();
            all.append(connection);
            nextStep.append(0);
            connect(socket, &QTcpSocket::readyRead, this, [this, socket, index] {
                take(socket, index);
                advance(socket, index);
            });
            connect(socket, &QTcpSocket::disconnected, this, [this, socket, index] {
                take(socket, index);
                if (all[index].closedAtMs < 0)
                    all[index].closedAtMs = clock.elapsed();
                socket->deleteLater();
            });
            advance(socket, index);
        }
    });
}

ScriptedTerminal::~ScriptedTerminal() {
    // No callbacks into a half-destroyed terminal from sockets closing below.
    for (QTcpSocket *socket : findChildren<QTcpSocket *>())
        socket->disconnect(this);
}

bool ScriptedTerminal::listen(quint16 port, const QHostAddress &address) {
    return server.listen(address, port);
}

void ScriptedTerminal::note(const QString &what, const QByteArray &bytes) {
    if (log)
        log(wireLine(name, what, bytes, terminalText(bytes)));
}

void ScriptedTerminal::take(QTcpSocket *socket, qsizetype index) {
    const QByteArray bytes = socket->readAll();
    if (bytes.isEmpty())
        return;
    all[index].received += bytes;
    for (qsizetype i = 0; i < bytes.size(); ++i)
        all[index].receivedAtMs.append(clock.elapsed());
    note(QStringLiteral("recv from ") + peerOf(socket), bytes);
}

void ScriptedTerminal::advance(QTcpSocket *socket, qsizetype index) {
    while (nextStep[index] < script.size()) {
        const Step &step = script[nextStep[index]];
        Connection &connection = all[index];
        if (step.kind == Step::Kind::AwaitBytes || step.kind == Step::Kind::AwaitMore ||
            step.kind == Step::Kind::AwaitRequest) {
            const qsizetype wanted = step.kind == Step::Kind::AwaitBytes  ? step.count
                                     : step.kind == Step::Kind::AwaitMore ? connection.awaited + step.count
                                                                          : connection.awaited + 1;
            if (connection.received.size() < wanted)
                return; // the next readyRead comes back here
            connection.awaited = step.kind == Step::Kind::AwaitRequest ? connection.received.size() : wanted;
            ++nextStep[index];
            continue;
        }
        // Replies, deliveries and hang-ups happen after their delay; the script goes on from there.
        ++nextStep[index];
        QPointer<QTcpSocket> guarded(socket);
        const auto act = [this, guarded, index, step] {
            if (step.kind == Step::Kind::Deliver)
                startDelivery(step);
            if (!guarded || guarded->state() != QAbstractSocket::ConnectedState)
                return;
            if (step.kind == Step::Kind::Reply) {
                all[index].replySentAtMs.append(clock.elapsed());
                const QString to = QStringLiteral("send to ") + peerOf(guarded);
                sendInPieces(
                    guarded, step.pieces.split(step.bytes), step.pieces.gapMs,
                    [this, to](const QByteArray &piece) { note(to, piece); },
                    [this, guarded, index] {
                        if (guarded)
                            advance(guarded, index);
                    });
                return;
            } else if (step.kind == Step::Kind::HangUp) {
                all[index].hungUpByTerminal = true;
                all[index].closedAtMs = clock.elapsed();
                guarded->disconnectFromHost();
                return;
            }
            advance(guarded, index);
        };
        if (step.delayMs > 0)
            QTimer::singleShot(step.delayMs, this, act);
        else
            act();
        return;
    }
}

void ScriptedTerminal::startDelivery(const Step &step) {
    // A terminal on an address of the shop network calls from that address, which is what
    // TERMINAL_ANSWER_PEERS=TCP_IP expects; one on loopback or on every address leaves it to
    // the routing table.
    const QHostAddress own = server.serverAddress();
    const bool fromOwnAddress = !own.isLoopback() && own != QHostAddress::Any &&
                                own != QHostAddress::AnyIPv4 && own != QHostAddress::AnyIPv6;
    auto *call = new AnswerCall(step.address, step.port, step.bytes, AnswerCall::Ending::WaitForListener,
                                this, step.pieces, fromOwnAddress ? own : QHostAddress());
    delivered.append(call);
    connect(call, &AnswerCall::pieceSent, this, [this, call](const QByteArray &piece) {
        note(QStringLiteral("answer to ") + call->target(), piece);
    });
    connect(call, &AnswerCall::failed, this, [this, call](const QString &error) {
        if (log)
            log(QStringLiteral("%1 answer to %2 failed: %3").arg(name, call->target(), error));
    });
}

int ScriptedTerminal::closedCount() const {
    int count = 0;
    for (const Connection &c : all)
        count += c.closedAtMs >= 0;
    return count;
}

int ScriptedTerminal::openCount() const {
    return static_cast<int>(all.size()) - closedCount();
}

} // namespace devsim
