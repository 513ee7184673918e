#pragma once

#include <QObject>
#include <QString>
#include <QTimer>

class QTcpServer;

// Keeps a QTcpServer accepting after accept() fails. On any error but a temporary one Qt
// pauses the server and never resumes it: a process out of descriptors (a flood of idle
// connections) would go on running with its gateway deaf, and its supervisor would never
// know. The first failure is said in one line; the server is resumed every second until
// a connection is accepted again, which is said in one line too.
//
// Qt's own report cannot be relied on for the descriptors: a socket engine keeps the first
// error it ever had, and every accept burst ends in "try again later", so once a server has
// accepted anything its later "out of descriptors" reads as temporary too. Qt then neither
// pauses nor reports, and the server spins on its readable socket. So each accepted
// connection is followed by a check that one more descriptor is free; when none is, every
// server of the process is paused, and each resumes only once one is.
class KeepAccepting : public QObject {
public:
    static constexpr int retryMs = 1000;

    // `what` names the server in the lines, before its port: "WebSocket server".
    KeepAccepting(QTcpServer *server, const QString &what);
    ~KeepAccepting() override;

private:
    void failed(const QString &reason);
    void accepted();
    void retryIfDescriptorFree();
    bool descriptorFree() const;

    QTcpServer *server;
    QString what;
    QTimer retry;
    bool failing = false;
};
