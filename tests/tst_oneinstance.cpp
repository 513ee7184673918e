// One service per user: a second launch of the real executable while one runs.
#include "posclient.h"
#include "servicefixture.h"
#include "serviceprocess.h"
#include "wait.h"

#include <QtTest>

class OneInstanceTest : public QObject {
    Q_OBJECT
private slots:
    void init() { QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use"); }

    void secondLaunchEndsAtOnceAndTheFirstKeepsServing() {
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        QByteArray out, err;
        // It ends by itself with status 0, not by runToEnd's deadline (-1).
        QCOMPARE(service.runToEnd({"--headless"}, &out, &err), 0);
        QVERIFY2(out.startsWith("Terano Counter is already running without a screen"), out.constData());
        QCOMPARE(out.count('\n'), 1);
        QCOMPARE(err, QByteArray());
        QVERIFY(service.isRunning());
        QVERIFY(pos.socket.state() == QAbstractSocket::ConnectedState);
        pos.send(R"({"requesttype":"print","data":[]})");
        QVERIFY(service.waitForStdoutLine(ServiceProcess::recvFired, 3000));
        QCOMPARE(service.stdoutLines(), QStringList{ServiceProcess::recvFired}); // nothing about the second
    }

    void launchAfterAKilledServiceStartsNormally() {
        ServiceProcess service;
        QVERIFY(service.start());
        service.killHard(); // leaves its socket file behind
        QVERIFY(service.start());
        PosClient pos;
        QVERIFY(pos.open(ServiceProcess::gatewayPort));
        QCOMPARE(service.stdoutLines(), QStringList());
    }

    // Killed inside a settings write (SIGKILL, a power cut), a service can leave an empty lock
    // file beside its settings. The one started after it must serve at once, not take
    // connections and answer none until the lock is 30 s old.
    void launchAfterAServiceKilledInsideASettingsWriteServesAtOnce() {
        ServiceProcess service;
        QVERIFY(QDir().mkpath(QFileInfo(service.settingsFile()).absolutePath()));
        QFile emptyLock(service.settingsFile() + QStringLiteral(".lock"));
        QVERIFY(emptyLock.open(QIODevice::WriteOnly));
        emptyLock.close();
        QVERIFY(service.start());
        PosClient pos;
        QVERIFY(pos.open(ServiceProcess::gatewayPort));
        pos.send(R"({"requesttype":"print","data":[]})");
        QVERIFY(service.waitForStdoutLine(ServiceProcess::recvFired, 3000));
        QCOMPARE(service.stdoutLines(), QStringList{ServiceProcess::recvFired});
    }

    void servicesWithTheirOwnSettingsDoNotMeet() {
        ServiceProcess first;
        QVERIFY(first.start());
        ServiceProcess other; // another HOME: another settings file
        QByteArray out;
        QVERIFY(other.start(false));
        QVERIFY(other.waitForStdoutLineCount(1, 10000)); // it runs, and finds the port taken
        QVERIFY2(other.stdoutLines().first().contains("49999"), qPrintable(other.stdoutLines().first()));
        QVERIFY(first.isRunning());
    }
};

QTEST_GUILESS_MAIN(OneInstanceTest)
#include "tst_oneinstance.moc"
