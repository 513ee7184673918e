#pragma once

#include <QByteArray>
#include <QTcpServer>
#include <QTcpSocket>

// One connection to the HTTP front. Beside being a plain QTcpSocket it does two things the
// WebSocket layer does not:
// - it keeps the bytes that came in the same TCP segments as the upgrade request (a native
//   client or a proxy sends its first frame right behind the request head), to be handed
//   back to the WebSocket once the upgrade is done;
// - it can put off the TCP close that follows a close frame, so that a peer which sent
//   frames before it saw the close frame still has them read.
class HttpConnection : public QTcpSocket {
    Q_OBJECT
public:
    using QTcpSocket::QTcpSocket;

    // Takes every byte behind the first `headLength` out of the read buffer, and reads
    // nothing more from the network until resumeAfterUpgrade(), so that the WebSocket
    // layer, which reads the handshake with a buffered stream, finds the head alone.
    void holdBackAfterHead(qsizetype headLength);
    // Puts the held-back bytes in front of anything read since, reads on, and has them
    // processed even if the network brings nothing more.
    void resumeAfterUpgrade();

    // The next close() only stops writing: reading goes on until the peer answers the close
    // frame (which closes for real) or hangs up.
    void keepReadingAfterNextClose() { lingerOnClose = true; }
    void close() override;

private:
    QByteArray heldBack;
    bool lingerOnClose = false;
};

// A QTcpServer whose connections are HttpConnections.
class HttpConnectionServer : public QTcpServer {
    Q_OBJECT
public:
    using QTcpServer::QTcpServer;

protected:
    void incomingConnection(qintptr socketDescriptor) override;
};
