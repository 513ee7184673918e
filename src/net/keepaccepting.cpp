#include "keepaccepting.h"

#include "common/log.h"

#include <QTcpServer>

KeepAccepting::KeepAccepting(QTcpServer *server, const QString &what)
    : QObject(server), server(server), what(what) {
    retry.setSingleShot(true);
    retry.setInterval(retryMs);
    connect(&retry, &QTimer::timeout, server, &QTcpServer::resumeAccepting);
    connect(server, &QTcpServer::acceptError, this, &KeepAccepting::failed);
    connect(server, &QTcpServer::newConnection, this, &KeepAccepting::accepted);
}

void KeepAccepting::failed() {
    if (!failing) {
        failing = true;
        logLine(QStringLiteral("%1 on port %2 cannot accept a connection: %3; trying again every second")
                    .arg(what)
                    .arg(server->serverPort())
                    .arg(server->errorString()));
    }
    retry.start();
}

void KeepAccepting::accepted() {
    if (!failing)
        return;
    failing = false;
    logLine(QStringLiteral("%1 on port %2 accepts connections again").arg(what).arg(server->serverPort()));
}
