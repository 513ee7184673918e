// The real service when descriptors run short: it takes every descriptor the kernel lets it
// have, and a flood of idle connections that uses them all up leaves the gateway and both
// terminal answer listeners accepting once the flood ends.
#include "common/localaddresses.h"
#include "devsim/answercall.h"
#include "posclient.h"
#include "sanitizers.h"
#include "servicefixture.h"
#include "serviceprocess.h"
#include "terminalframes.h"
#include "wait.h"

#include <QFile>
#include <QTcpSocket>
#include <QtTest>
#include <memory>
#include <vector>

namespace {

// "Max open files  <soft>  <hard>  files" from /proc/<pid>/limits.
QPair<QByteArray, QByteArray> descriptorLimits(qint64 pid) {
    QFile limits(QStringLiteral("/proc/%1/limits").arg(pid));
    if (!limits.open(QIODevice::ReadOnly))
        return {};
    for (const QByteArray &line : limits.readAll().split('\n'))
        if (line.startsWith("Max open files")) {
            const QList<QByteArray> fields = line.mid(14).simplified().split(' ');
            return {fields.value(0), fields.value(1)};
        }
    return {};
}

qsizetype openDescriptors(qint64 pid) {
    return QDir(QStringLiteral("/proc/%1/fd").arg(pid))
        .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
        .size();
}

const QByteArray answerFrame = "\x02"
                               "0123APPROVED\x03"
                               "XY";

} // namespace

class DescriptorsTest : public QObject {
    Q_OBJECT
    QString shopAddress;

private slots:
    void initTestCase() {
        const QStringList addresses = localAddresses();
        QVERIFY2(!addresses.isEmpty(), "the service needs an interface that is up and not loopback");
        shopAddress = addresses.first();
    }
    void init() { QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use"); }

    void theSoftLimitIsRaisedToTheHardOne() {
        ServiceProcess service;
        service.softDescriptorLimit = 256;
        service.hardDescriptorLimit = 4096;
        QVERIFY(service.start());
        QCOMPARE(descriptorLimits(service.pid()), (QPair<QByteArray, QByteArray>{"4096", "4096"}));
        QCOMPARE(service.stderrLines(), QStringList());
    }

    void aFloodThatUsesUpDescriptorsLeavesEveryServerAccepting() {
#if defined(TESTS_UNDER_ADDRESS_SANITIZER)
        // The sanitizers' runtime needs descriptors of its own (it tests whether memory is
        // readable through a pipe, and symbolizes through another process): starved of them,
        // it reports objects of unknown type and crawls. The ordinary build runs this test.
        QSKIP("a process out of descriptors cannot run under the sanitizers");
#endif
        ServiceProcess service;
        service.softDescriptorLimit = 64;
        service.hardDescriptorLimit = 64;
        service.set(QStringLiteral("MAIN_INTERFACE"), QStringLiteral("TCP"));
        service.set(QStringLiteral("TCP_IP"), QStringLiteral("127.0.0.1"));
        QVERIFY(service.start());
        // The answer listeners open with the TCP page, after the gateway: a flood that came
        // before them would be refused there and use up no descriptor.
        for (const quint16 port : {13189, 5501})
            QVERIFY2(waitUntil(
                         [&] {
                             QTcpSocket probe;
                             probe.connectToHost(QHostAddress(shopAddress), port);
                             return probe.waitForConnected(1000);
                         },
                         10000),
                     qPrintable(QStringLiteral("nothing listens on %1:%2").arg(shopAddress).arg(port)));

        // Idle connections to all three servers, more than the service has descriptors for.
        std::vector<std::unique_ptr<QTcpSocket>> flood;
        const QList<QPair<QHostAddress, quint16>> targets{
            {QHostAddress::LocalHost, ServiceProcess::gatewayPort},
            {QHostAddress(shopAddress), 13189},
            {QHostAddress(shopAddress), 5501}};
        for (int i = 0; i < 120; ++i) {
            auto socket = std::make_unique<QTcpSocket>();
            socket->connectToHost(targets[i % 3].first, targets[i % 3].second);
            flood.push_back(std::move(socket));
        }
        QVERIFY2(waitUntil(
                     [&] { return !service.stdoutLines().filter(" cannot accept a connection: ").isEmpty(); },
                     10000),
                 qPrintable(service.stdoutLines().join(u'\n')));
        const QStringList failing = service.stdoutLines().filter(" cannot accept a connection: ");
        qInfo("%lld descriptors open at the height of the flood; %s", qint64(openDescriptors(service.pid())),
              qPrintable(failing.join(QStringLiteral(" | "))));
        for (const QString &line : failing)
            QVERIFY2(line.endsWith(QLatin1String("; trying again every second")), qPrintable(line));

        flood.clear(); // the flood ends: every one of its connections goes

        // The gateway: a new POS completes its handshake and is served.
        PosClient pos;
        QVERIFY(waitUntil([&] { return pos.open(ServiceProcess::gatewayPort); }, 10000));
        pos.send(R"({"requesttype":"noop","van":"none","data":[]})");
        QVERIFY(waitUntil([&] { return service.stdoutLines().contains(ServiceProcess::recvFired); }, 5000));
        // Each listener: a terminal's answer reaches that POS.
        for (const quint16 port : {13189, 5501}) {
            QVERIFY(waitUntil(
                [&] {
                    const qsizetype before = pos.texts.size();
                    devsim::AnswerCall terminal{QHostAddress(shopAddress), port, answerFrame};
                    return waitUntil([&] { return terminal.isFinished(); }, 3000) &&
                           waitUntil(
                               [&] {
                                   return pos.texts.filter("APPROVED").size() > 0 &&
                                          pos.texts.size() > before;
                               },
                               1000);
                },
                10000));
            QCOMPARE(jsonObject(pos.texts.filter("APPROVED").last()),
                     expectedAnswer("APPROVED", port == 13189 ? "TS-132N:TS-167" : "SMT-T263"));
            pos.texts.clear();
        }
        // Every server that could not accept has said that it does again.
        for (const QString &line : failing) {
            const QString server = line.left(line.indexOf(QLatin1String(" cannot accept")));
            QVERIFY2(service.stdoutLines().contains(server + QStringLiteral(" accepts connections again")),
                     qPrintable(server));
        }
        QVERIFY(service.isRunning());
        QCOMPARE(service.stderrLines(), QStringList());
    }
};

QTEST_GUILESS_MAIN(DescriptorsTest)
#include "tst_descriptors.moc"
