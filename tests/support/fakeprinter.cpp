#include "fakeprinter.h"

#include <QTcpSocket>

FakePrinter::FakePrinter(QObject *parent) : QObject(parent) {
    clock.start();
    connect(&server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = server.nextPendingConnection()) {
            const qsizetype index = all.size();
            Connection connection;
            connection.acceptedAtMs = clock.elapsed();
            all.append(connection);
            connect(socket, &QTcpSocket::readyRead, this, [this, socket, index] {
                all[index].received += socket->readAll();
                all[index].lastByteAtMs = clock.elapsed();
                if (!reply.isEmpty())
                    socket->write(reply);
            });
            connect(socket, &QTcpSocket::disconnected, this, [this, socket, index] {
                all[index].received += socket->readAll();
                all[index].closedAtMs = clock.elapsed();
                socket->deleteLater();
            });
        }
    });
}

FakePrinter::~FakePrinter() {
    // Sockets still open close with the server below, after `all` is gone: they must not
    // call back into it.
    for (QTcpSocket *socket : server.findChildren<QTcpSocket *>())
        socket->disconnect(this);
}

bool FakePrinter::listen(quint16 port, const QHostAddress &address) {
    return server.listen(address, port);
}

int FakePrinter::closedCount() const {
    int count = 0;
    for (const Connection &c : all)
        if (c.closedAtMs >= 0)
            ++count;
    return count;
}
