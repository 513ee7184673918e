#include "httpconnection.h"

#include <unistd.h>

void HttpConnection::holdBackAfterHead(qsizetype headLength) {
    if (bytesAvailable() > headLength) {
        const QByteArray all = readAll();
        heldBack = all.mid(headLength);
        // QIODevice has no way to take bytes from the middle of its buffer; the head goes
        // back in front, byte by byte, as if it had never been read.
        for (qsizetype i = headLength - 1; i >= 0; --i)
            ungetChar(all.at(i));
    }
    // A full read buffer stops the socket reading from the network, so nothing more can
    // join the head before the WebSocket layer has read it.
    setReadBufferSize(headLength);
}

void HttpConnection::resumeAfterUpgrade() {
    for (qsizetype i = heldBack.size() - 1; i >= 0; --i)
        ungetChar(heldBack.at(i));
    const bool pending = !heldBack.isEmpty();
    heldBack.clear();
    setReadBufferSize(0);
    // The WebSocket reads on readyRead; bytes put back raise none of their own.
    if (pending)
        QMetaObject::invokeMethod(
            this,
            [this] {
                if (bytesAvailable() > 0)
                    emit readyRead();
            },
            Qt::QueuedConnection);
}

void HttpConnection::close() {
    if (lingerOnClose && state() == QAbstractSocket::ConnectedState) {
        lingerOnClose = false;
        flush();
        return;
    }
    QTcpSocket::close();
}

void HttpConnectionServer::incomingConnection(qintptr socketDescriptor) {
    auto *connection = new HttpConnection(this);
    if (!connection->setSocketDescriptor(socketDescriptor)) {
        delete connection;
        ::close(static_cast<int>(socketDescriptor)); // nobody else will
        return;
    }
    addPendingConnection(connection);
}
