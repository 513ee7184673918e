#include "faketerminal.h"

#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

FakeTerminal::FakeTerminal(QObject *parent) : QObject(parent) {
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
                const QByteArray bytes = socket->readAll();
                all[index].received += bytes;
                for (qsizetype i = 0; i < bytes.size(); ++i)
                    all[index].receivedAtMs.append(clock.elapsed());
                advance(socket, index);
            });
            connect(socket, &QTcpSocket::disconnected, this, [this, socket, index] {
                const QByteArray rest = socket->readAll();
                all[index].received += rest;
                for (qsizetype i = 0; i < rest.size(); ++i)
                    all[index].receivedAtMs.append(clock.elapsed());
                if (all[index].closedAtMs < 0)
                    all[index].closedAtMs = clock.elapsed();
                socket->deleteLater();
            });
            advance(socket, index);
        }
    });
}

FakeTerminal::~FakeTerminal() {
    // No callbacks into a half-destroyed terminal from sockets closing below.
    for (QTcpSocket *socket : findChildren<QTcpSocket *>())
        socket->disconnect(this);
}

bool FakeTerminal::listen(quint16 port, const QHostAddress &address) {
    return server.listen(address, port);
}

void FakeTerminal::advance(QTcpSocket *socket, qsizetype index) {
    while (nextStep[index] < script.size()) {
        const Step &step = script[nextStep[index]];
        if (step.kind == Step::Kind::AwaitBytes) {
            if (all[index].received.size() < step.count)
                return; // the next readyRead comes back here
            ++nextStep[index];
            continue;
        }
        // Replies and hang-ups happen after their delay; the script goes on from there.
        ++nextStep[index];
        QPointer<QTcpSocket> guarded(socket);
        const auto act = [this, guarded, index, step] {
            if (!guarded || guarded->state() != QAbstractSocket::ConnectedState)
                return;
            if (step.kind == Step::Kind::Reply) {
                guarded->write(step.bytes);
                guarded->flush();
                all[index].replySentAtMs.append(clock.elapsed());
            } else {
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

int FakeTerminal::closedCount() const {
    int count = 0;
    for (const Connection &c : all)
        count += c.closedAtMs >= 0;
    return count;
}

int FakeTerminal::openCount() const {
    return static_cast<int>(all.size()) - closedCount();
}
