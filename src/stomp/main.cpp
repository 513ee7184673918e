#include "common/log.h"
#include "common/terminationsignals.h"
#include "testserver.h"

#include <QCoreApplication>

// Runs the STOMP test server on port 8080 until it is stopped (Ctrl-C or SIGTERM).
int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    quitOnTerminationSignals();

    TestServer server;
    QString failure;
    if (!server.start(&failure)) {
        logLine(QStringLiteral("STOMP test server could not start on port %1: %2")
                    .arg(TestServer::defaultPort)
                    .arg(failure));
        return 1;
    }
    return QCoreApplication::exec();
}
