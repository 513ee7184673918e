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
class KeepAccepting : public QObject {
public:
    static constexpr int retryMs = 1000;

    // `what` names the server in the lines, before its port: "WebSocket server".
    KeepAccepting(QTcpServer *server, const QString &what);

private:
    void failed();
    void accepted();

    QTcpServer *server;
    QString what;
    QTimer retry;
    bool failing = false;
};
