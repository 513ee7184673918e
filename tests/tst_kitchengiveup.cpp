// A kitchen order whose printer never comes back is given up once KITCHEN_RETRY_MINUTES
// have passed, with one line that names the printer and not the order. A test of its own:
// it waits out the real minute, and beside the rest of the store's tests it then costs
// nothing.
#include "posclient.h"
#include "servicefixture.h"
#include "serviceprocess.h"
#include "wait.h"

#include <QElapsedTimer>
#include <QTcpServer>
#include <QtTest>

namespace {

quint16 freePort() {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost);
    return probe.serverPort(); // free again once the probe goes
}

} // namespace

class KitchenGiveUpTest : public QObject {
    Q_OBJECT

private slots:
    void init() { QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use"); }

    void orderIsGivenUpWhenItsMinutesHavePassed() {
        const quint16 port = freePort();
        ServiceProcess service;
        service.set("KITCHEN_RETRY_MINUTES", "1");
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        QElapsedTimer clock;
        clock.start();
        pos.send(kitchenOrderFrame(QStringLiteral("SECRET SOUP\n"), port));
        QVERIFY(service.waitForStdoutLineCount(2, 75000));
        const qint64 elapsed = clock.elapsed();
        QVERIFY2(elapsed >= 59000 && elapsed <= 63000, qPrintable(QString::number(elapsed)));
        keepRunningFor(500);
        const QStringList lines = service.stdoutLines();
        QCOMPARE(lines.size(), 2);
        QVERIFY2(lines[1].contains(QStringLiteral("127.0.0.1:%1").arg(port)) && lines[1].contains("1 min"),
                 qPrintable(lines[1]));
        QVERIFY(!lines[1].contains("SECRET"));
        QCOMPARE(service.pendingLines(), QStringList{"nothing is waiting"});
    }
};

QTEST_GUILESS_MAIN(KitchenGiveUpTest)
#include "tst_kitchengiveup.moc"
