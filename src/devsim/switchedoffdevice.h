#pragma once

#include <QList>
#include <QTcpServer>
#include <QTcpSocket>
#include <memory>

namespace devsim {

// A printer or card terminal that is switched off, on the shop network: a loopback port
// that never completes a connection. A listening socket whose accept queue is kept full,
// so the kernel drops further connection attempts and a client's connect only ever times
// out (a closed port would refuse at once, which is another fault).
class SwitchedOffDevice {
public:
    bool open() {
        server.setListenBacklogSize(0);
        if (!server.listen(QHostAddress::LocalHost, 0))
            return false;
        server.pauseAccepting();
        for (int i = 0; i < 4; ++i) {
            auto socket = std::make_unique<QTcpSocket>();
            socket->connectToHost(QHostAddress::LocalHost, server.serverPort());
            socket->waitForConnected(200);
            fillers.push_back(std::move(socket));
        }
        return true;
    }
    quint16 port() const { return server.serverPort(); }

private:
    QTcpServer server;
    std::vector<std::unique_ptr<QTcpSocket>> fillers;
};

// A loopback port on which nothing listens (bound, then freed): a device that refuses every
// connection at once, switched on but not serving. 0 when no port could be had.
inline quint16 refusingPort() {
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        return 0;
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

} // namespace devsim
