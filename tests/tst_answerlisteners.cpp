// Where the real service takes terminal answers: on the first address of an interface
// that is up, running and not loopback. The test makes a network namespace of its own,
// with an interface that is up but has no carrier (listed first) and a veth pair that is
// up at both ends, and runs the service inside it. Needs root, as CI has.
#include "devsim/answercall.h"
#include "posclient.h"
#include "servicefixture.h"
#include "serviceprocess.h"
#include "terminalframes.h"
#include "wait.h"

#include <QProcess>
#include <QTcpSocket>
#include <QtTest>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace {

const QString usableAddress = QStringLiteral("10.77.0.1");
const QString noCarrierAddress = QStringLiteral("10.77.1.1");
// Two more hosts on the shop network, as seen from the service: the card terminal, and
// another machine that is not one.
const QString terminalAddress = QStringLiteral("10.77.0.2");
const QString otherHostAddress = QStringLiteral("10.77.0.3");

QString ip(const QStringList &arguments) {
    QProcess process;
    process.start(QStringLiteral("ip"), arguments);
    if (!process.waitForFinished(10000))
        return QStringLiteral("`ip %1` did not finish").arg(arguments.join(u' '));
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return QStringLiteral("`ip %1` failed: %2")
            .arg(arguments.join(u' '), QString::fromLocal8Bit(process.readAllStandardError()).trimmed());
    return {};
}

QString linkState(const QString &ns, const QString &name) {
    QProcess process;
    process.start(QStringLiteral("ip"), {"-n", ns, "-br", "link", "show", name});
    process.waitForFinished(5000);
    return QString::fromLocal8Bit(process.readAllStandardOutput()).simplified();
}

bool answerReachesThePos(PosClient &pos, const QString &address, quint16 port, const QString &from = {}) {
    const qsizetype before = pos.texts.size();
    devsim::AnswerCall terminal{QHostAddress(address),
                                port,
                                "\x02"
                                "0123APPROVED\x03"
                                "XY",
                                devsim::AnswerCall::Ending::WaitForListener,
                                nullptr,
                                {},
                                from.isEmpty() ? QHostAddress() : QHostAddress(from)};
    return waitUntil([&] { return terminal.isConnected() && pos.texts.size() > before; }, 3000);
}

bool refused(const QString &address, quint16 port) {
    QTcpSocket probe;
    probe.connectToHost(QHostAddress(address), port);
    return !probe.waitForConnected(1000);
}

} // namespace

class AnswerListenersTest : public QObject {
    Q_OBJECT
    QString ns = QStringLiteral("teranotest%1").arg(getpid());
    int home = -1;
    bool created = false;

private slots:
    void initTestCase() {
        QVERIFY2(geteuid() == 0, "this test makes a network namespace and needs root (CI runs as root)");
        home = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        QVERIFY2(home >= 0, "cannot open this process's network namespace");
        QString failure = ip({"netns", "add", ns});
        QVERIFY2(failure.isEmpty(), qPrintable("cannot make a network namespace: " + failure));
        created = true;
        const QList<QStringList> setup{
            {"-n", ns, "link", "set", "lo", "up"},
            // Up, with an address, but its peer is down: no carrier, so not running.
            {"-n", ns, "link", "add", "nocarrier0", "type", "veth", "peer", "name", "nocarrier1"},
            {"-n", ns, "addr", "add", noCarrierAddress + "/24", "dev", "nocarrier0"},
            {"-n", ns, "link", "set", "nocarrier0", "up"},
            {"-n", ns, "link", "add", "shop0", "type", "veth", "peer", "name", "shop1"},
            {"-n", ns, "addr", "add", usableAddress + "/24", "dev", "shop0"},
            // Secondary addresses: the first one stays where the service listens.
            {"-n", ns, "addr", "add", terminalAddress + "/24", "dev", "shop0"},
            {"-n", ns, "addr", "add", otherHostAddress + "/24", "dev", "shop0"},
            {"-n", ns, "link", "set", "shop0", "up"},
            {"-n", ns, "link", "set", "shop1", "up"},
        };
        for (const QStringList &step : setup) {
            failure = ip(step);
            QVERIFY2(failure.isEmpty(), qPrintable(failure));
        }
        QVERIFY2(waitUntil([&] { return linkState(ns, "shop0").contains(" UP "); }, 5000),
                 qPrintable(linkState(ns, "shop0")));
        QVERIFY2(linkState(ns, "nocarrier0").contains("NO-CARRIER"), qPrintable(linkState(ns, "nocarrier0")));

        // From here on this test, and the service it starts, live in the namespace.
        const int target = open(QFile::encodeName("/var/run/netns/" + ns).constData(), O_RDONLY | O_CLOEXEC);
        QVERIFY2(target >= 0, "cannot open the namespace made for the test");
        const int entered = setns(target, CLONE_NEWNET);
        close(target);
        QVERIFY2(entered == 0, "cannot enter the namespace made for the test");
    }

    void cleanupTestCase() {
        if (home >= 0) {
            setns(home, CLONE_NEWNET);
            close(home);
        }
        if (created)
            ip({"netns", "del", ns});
    }

    void answersAreTakenOnTheFirstUsableAddressOnly() {
        ServiceProcess service;
        QCOMPARE(service.runToEnd({"--set", "MAIN_INTERFACE=TCP", "--set", "TCP_IP=127.0.0.1"}), 0);
        PosClient pos;
        QVERIFY2(startAndConnect(service, pos), qPrintable(service.stderrLines().join(u'\n')));
        pos.send(R"({"requesttype":"noop","van":"none","data":[]})");
        QVERIFY(service.waitForStdoutLine(ServiceProcess::recvFired, 3000));

        QVERIFY(answerReachesThePos(pos, usableAddress, 13189));
        QCOMPARE(jsonObject(pos.texts.last()), expectedAnswer("APPROVED", "TS-132N:TS-167"));
        QVERIFY(answerReachesThePos(pos, usableAddress, 5501));
        QCOMPARE(jsonObject(pos.texts.last()), expectedAnswer("APPROVED", "SMT-T263"));

        for (const QString &other : {QStringLiteral("127.0.0.1"), noCarrierAddress})
            for (const quint16 port : {13189, 5501})
                QVERIFY2(refused(other, port),
                         qPrintable(QStringLiteral("%1:%2 accepted").arg(other).arg(port)));
        QVERIFY(service.isRunning());
        QCOMPARE(service.stderrLines(), QStringList());
    }

    // A forged approval from another host on the shop network is refused unread; the
    // terminal's own answer still reaches the POS.
    void onlyTheTerminalMayAnswerWhenPeersAreSet() {
        ServiceProcess service;
        QCOMPARE(service.runToEnd({"--set", "MAIN_INTERFACE=TCP", "--set", "TCP_IP=" + terminalAddress,
                                   "--set", "TERMINAL_ANSWER_PEERS=TCP_IP"}),
                 0);
        PosClient pos;
        QVERIFY2(startAndConnect(service, pos), qPrintable(service.stderrLines().join(u'\n')));
        pos.send(R"({"requesttype":"noop","van":"none","data":[]})");
        QVERIFY(service.waitForStdoutLine(ServiceProcess::recvFired, 3000));

        const QString refusedLine =
            "terminal answer refused from " + otherHostAddress + ": not in TERMINAL_ANSWER_PEERS";
        for (const quint16 port : {13189, 5501}) {
            devsim::AnswerCall forged{QHostAddress(usableAddress),
                                      port,
                                      "\x02"
                                      "0123\xc1\xa4\xbb\xf3\xbd\xc2\xc0\xce 99999999\x03"
                                      "XY",
                                      devsim::AnswerCall::Ending::WaitForListener,
                                      nullptr,
                                      {},
                                      QHostAddress(otherHostAddress)};
            QVERIFY(waitUntil([&] { return forged.isFinished(); }, 3000));
            QVERIFY(forged.closedByListener());
            // The terminal's answer after it arrives, and is the only one.
            QVERIFY(answerReachesThePos(pos, usableAddress, port, terminalAddress));
            QCOMPARE(pos.texts.size(), 1);
            QCOMPARE(jsonObject(pos.texts.last()),
                     expectedAnswer("APPROVED", port == 13189 ? "TS-132N:TS-167" : "SMT-T263"));
            pos.texts.clear();
        }
        // One line for the host, not one per try; nothing of what it sent.
        QCOMPARE(service.stdoutLines().filter("terminal answer refused"), QStringList{refusedLine});
        QCOMPARE(service.stdoutLines().count("Client Comes!"), 1); // the terminal's call only
        QVERIFY(service.isRunning());
        QCOMPARE(service.stderrLines(), QStringList());
    }

    void withoutPeersAnyHostMayAnswerAsBefore() {
        ServiceProcess service;
        QCOMPARE(service.runToEnd({"--set", "MAIN_INTERFACE=TCP", "--set", "TCP_IP=" + terminalAddress}), 0);
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(R"({"requesttype":"noop","van":"none","data":[]})");
        QVERIFY(service.waitForStdoutLine(ServiceProcess::recvFired, 3000));
        QVERIFY(answerReachesThePos(pos, usableAddress, 13189, otherHostAddress));
        QCOMPARE(service.stdoutLines().filter("terminal answer refused"), QStringList());
    }

    void lockDownWritesTheProtectionsWithThisNetworkForPrinters() {
        ServiceProcess service;
        QByteArray out, err;
        QCOMPARE(service.runToEnd({"--lock-down"}, &out, &err), 0);
        // The network of the interface that is up; not loopback, not the one without carrier.
        QCOMPARE(QString::fromUtf8(out), QStringLiteral("WEBSOCKET_PIN_FIRST_ORIGIN=true\n"
                                                        "TERMINAL_ANSWER_PEERS=TCP_IP\n"
                                                        "KITCHEN_ALLOWED_PRINTERS=10.77.0.0/24\n"
                                                        "HOLD_UNDELIVERED_ANSWERS=true\n"
                                                        "KITCHEN_RETRY_MINUTES=10\n"));
        QCOMPARE(err, QByteArray());
        QCOMPARE(service.runToEnd({"--settings"}, &out), 0);
        QCOMPARE(out, QByteArray("HOLD_UNDELIVERED_ANSWERS=true\nKITCHEN_ALLOWED_PRINTERS=10.77.0.0/24\n"
                                 "KITCHEN_RETRY_MINUTES=10\nTERMINAL_ANSWER_PEERS=TCP_IP\n"
                                 "WEBSOCKET_PIN_FIRST_ORIGIN=true\n"));

        // What the owner chose already is kept.
        ServiceProcess chosen;
        QCOMPARE(
            chosen.runToEnd({"--allow-origin", "http://pos.local", "--set",
                             "KITCHEN_ALLOWED_PRINTERS=10.77.0.50", "--set", "KITCHEN_RETRY_MINUTES=30"}),
            0);
        QCOMPARE(chosen.runToEnd({"--lock-down"}, &out), 0);
        QCOMPARE(out, QByteArray("TERMINAL_ANSWER_PEERS=TCP_IP\nHOLD_UNDELIVERED_ANSWERS=true\n"));
        QCOMPARE(chosen.runToEnd({"--settings"}, &out), 0);
        QCOMPARE(out, QByteArray("HOLD_UNDELIVERED_ANSWERS=true\nKITCHEN_ALLOWED_PRINTERS=10.77.0.50\n"
                                 "KITCHEN_RETRY_MINUTES=30\nTERMINAL_ANSWER_PEERS=TCP_IP\n"
                                 "WEBSOCKET_ALLOWED_ORIGINS=http://pos.local\n"));
    }

    void withNoUsableInterfaceTheServiceStopsAtLaunch() {
        QVERIFY(ip({"-n", ns, "link", "set", "shop1", "down"}).isEmpty()); // shop0 loses its carrier
        QVERIFY(waitUntil([&] { return linkState(ns, "shop0").contains("NO-CARRIER"); }, 5000));
        ServiceProcess service;
        QVERIFY(service.start(false));
        QVERIFY(service.waitForExit(10000));
        QCOMPARE(service.exitStatus(), QProcess::NormalExit);
        QVERIFY(service.exitCode() != 0);
        const QStringList errors = service.stderrLines();
        QCOMPARE(errors.size(), 1);
        QVERIFY2(errors.first().startsWith("fatal: "), qPrintable(errors.first()));
        QVERIFY(ip({"-n", ns, "link", "set", "shop1", "up"}).isEmpty());
    }
};

QTEST_GUILESS_MAIN(AnswerListenersTest)
#include "tst_answerlisteners.moc"
