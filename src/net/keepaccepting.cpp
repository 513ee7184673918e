#include "keepaccepting.h"

#include "common/log.h"

#include <QList>
#include <QTcpServer>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Every server of the process: they share the descriptors, so they run out together.
QList<KeepAccepting *> &servers() {
    static QList<KeepAccepting *> all;
    return all;
}

// What Qt says for the same condition, so the line reads the same however it was found.
const QString outOfDescriptors = QStringLiteral("Out of resources");

} // namespace

KeepAccepting::KeepAccepting(QTcpServer *server, const QString &what)
    : QObject(server), server(server), what(what) {
    retry.setSingleShot(true);
    retry.setInterval(retryMs);
    connect(&retry, &QTimer::timeout, this, &KeepAccepting::retryIfDescriptorFree);
    connect(server, &QTcpServer::acceptError, this, [this] { failed(this->server->errorString()); });
    connect(server, &QTcpServer::newConnection, this, &KeepAccepting::accepted);
    servers().append(this);
}

KeepAccepting::~KeepAccepting() {
    servers().removeAll(this);
}

void KeepAccepting::failed(const QString &reason) {
    if (!failing) {
        failing = true;
        logLine(QStringLiteral("%1 on port %2 cannot accept a connection: %3; trying again every second")
                    .arg(what)
                    .arg(server->serverPort())
                    .arg(reason));
    }
    server->pauseAccepting();
    retry.start();
}

void KeepAccepting::accepted() {
    if (failing) {
        failing = false;
        logLine(
            QStringLiteral("%1 on port %2 accepts connections again").arg(what).arg(server->serverPort()));
    }
    if (descriptorFree())
        return;
    // That connection took the last descriptor: no server may accept until one is free, or
    // each would spin on a socket it cannot take anything from.
    for (KeepAccepting *each : std::as_const(servers()))
        if (each->server->isListening())
            each->failed(outOfDescriptors);
}

void KeepAccepting::retryIfDescriptorFree() {
    if (descriptorFree())
        server->resumeAccepting();
    else
        retry.start();
}

bool KeepAccepting::descriptorFree() const {
    const int probe = ::fcntl(server->socketDescriptor(), F_DUPFD_CLOEXEC, 0);
    if (probe < 0)
        return errno != EMFILE && errno != ENFILE;
    ::close(probe);
    return true;
}
