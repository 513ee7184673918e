#include "printer.h"

#include <QTcpSocket>

namespace devsim {

Printer::Printer(QObject *parent) : QObject(parent) {
    clock.start();
    connect(&server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = server.nextPendingConnection()) {
            const qsizetype index = all.size();
            Connection connection;
            connection.acceptedAtMs = clock.elapsed();
            all.append(connection);
            const QString sender =
                QStringLiteral("%1:%2").arg(socket->peerAddress().toString()).arg(socket->peerPort());
            connect(socket, &QTcpSocket::readyRead, this, [this, socket, index, sender] {
                all[index].received += socket->readAll();
                all[index].lastByteAtMs = clock.elapsed();
                emit bytesReceived(index);
                if (!reply.isEmpty()) {
                    socket->write(reply);
                    if (log)
                        log(wireLine(QStringLiteral("printer"), QStringLiteral("reply to ") + sender, reply,
                                     printerText(reply)));
                }
            });
            connect(socket, &QTcpSocket::disconnected, this, [this, socket, index, sender] {
                all[index].received += socket->readAll();
                all[index].closedAtMs = clock.elapsed();
                socket->deleteLater();
                if (log)
                    log(wireLine(QStringLiteral("printer"), QStringLiteral("job from ") + sender,
                                 all[index].received, printerText(all[index].received)));
            });
        }
    });
}

Printer::~Printer() {
    // Sockets still open close with the server below, after `all` is gone: they must not
    // call back into it.
    for (QTcpSocket *socket : server.findChildren<QTcpSocket *>())
        socket->disconnect(this);
}

bool Printer::listen(quint16 port, const QHostAddress &address) {
    return server.listen(address, port);
}

int Printer::closedCount() const {
    int count = 0;
    for (const Connection &c : all)
        if (c.closedAtMs >= 0)
            ++count;
    return count;
}

} // namespace devsim
