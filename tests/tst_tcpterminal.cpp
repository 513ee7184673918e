// The real `teranocounter --headless` with MAIN_INTERFACE=TCP and TCP_IP=127.0.0.1, fake
// KICC, KIS and SMARTRO terminals on their fixed ports on loopback, and a POS page.
#include "common/cp949.h"
#include "common/localaddresses.h"
#include "devsim/answercall.h"
#include "devsim/printer.h"
#include "devsim/scriptedterminal.h"
#include "devsim/vendorscripts.h"
#include "posclient.h"
#include "servicefixture.h"
#include "serviceprocess.h"
#include "terminalframes.h"
#include "wait.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

namespace {

const QString &recvFired = ServiceProcess::recvFired;

QByteArray cp(const QString &text) {
    return cp949::encode(text).value();
}

// What the terminal sends to the service's own answer listener: 5 framing bytes, the
// text in code page 949, 3 framing bytes.
QByteArray listenerFrame(const QByteArray &text) {
    return QByteArray("\x02"
                      "0123") +
           text +
           QByteArray("\x03"
                      "XY");
}

bool deliverToListener(const QString &address, quint16 port, const QByteArray &frame) {
    devsim::AnswerCall terminal{QHostAddress(address), port, frame};
    // the service lets go of the connection once it has the answer
    return waitUntil([&] { return terminal.isFinished(); }, 5000) && terminal.closedByListener();
}

} // namespace

class TcpTerminalTest : public QObject {
    Q_OBJECT

    void configure(ServiceProcess &service) {
        QCOMPARE(service.runToEnd({"--set", "MAIN_INTERFACE=TCP", "--set", "TCP_IP=127.0.0.1"}), 0);
    }

private slots:
    void init() { QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use"); }

    void kisPaymentAnswerWithHangulReachesThePos() {
        const QByteArray request("\x02"
                                 "PAY0001000\x03",
                                 12);
        devsim::ScriptedTerminal kis;
        QVERIFY(kis.listen(5000));
        kis.setScript(devsim::kisExchange(cp(QStringLiteral("승인 완료 1234")), 300));
        ServiceProcess service;
        configure(service);
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(terminalFrame(QStringLiteral("KIS"), request));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 5000));
        QCOMPARE(jsonObject(pos.texts.first()), expectedAnswer(QStringLiteral("승인 완료 1234"), "KIS7430"));
        QCOMPARE(kis.connections().size(), 1);
        QCOMPARE(kis.connections().first().received, request);
        QVERIFY(waitUntil([&] { return kis.closedCount() == 1; }, 2000)); // closed after the answer
        keepRunningFor(300);
        QCOMPARE(pos.texts.size(), 1);
        QCOMPARE(service.stdoutLines().first(), recvFired);
        QVERIFY(service.isRunning());
    }

    void smartroRepliesAreAcknowledgedAndTheDleReplyReachesThePos() {
        const QByteArray request("\x02SMARTRO-PAY\x03");
        const QByteArray dleReply = QByteArray("\x10") + cp(QStringLiteral("정상승인 5000원"));
        devsim::ScriptedTerminal smartro;
        QVERIFY(smartro.listen(5501, QHostAddress::LocalHost));
        smartro.setScript({devsim::ScriptedTerminal::awaitBytes(request.size()),
                           devsim::ScriptedTerminal::reply("FIRST", 100),
                           devsim::ScriptedTerminal::reply("SECOND", 200),
                           devsim::ScriptedTerminal::awaitBytes(request.size() + 3),
                           devsim::ScriptedTerminal::reply("THIRD", 200),
                           devsim::ScriptedTerminal::awaitBytes(request.size() + 6),
                           devsim::ScriptedTerminal::reply(dleReply, 200),
                           devsim::ScriptedTerminal::awaitBytes(request.size() + 9)});
        ServiceProcess service;
        configure(service);
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(terminalFrame(QStringLiteral("smartro"), request));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 5000));
        QCOMPARE(jsonObject(pos.texts.first()),
                 expectedAnswer(QString::fromUtf8(QByteArray("\x10")) + QStringLiteral("정상승인 5000원"),
                                "SMT-T263"));
        QVERIFY(waitUntil([&] { return smartro.closedCount() == 1; }, 2000));
        const devsim::ScriptedTerminal::Connection &c = smartro.connections().first();
        // The first reply is never acknowledged; each later one, the DLE reply included, is.
        QCOMPARE(c.received, request + QByteArray(9, '\x06'));
        const QStringList lines = service.stdoutLines();
        QCOMPARE(lines.count(QStringLiteral("ack success")), 3);
        QVERIFY(lines.contains(QStringLiteral("DLE COMES!")));
        QVERIFY(lines.indexOf(QStringLiteral("DLE COMES!")) >
                lines.lastIndexOf(QStringLiteral("ack success")));
        QVERIFY(!lines.contains(QStringLiteral("ack failed")));
    }

    void kiccRequestReachesTheTerminalAndTheAnswerComesBackOnTheListener() {
        const QStringList addresses = localAddresses();
        QVERIFY2(!addresses.isEmpty(), "this machine has no non-loopback interface up");
        const QByteArray request("\x02KICC-REQ\x03");
        devsim::ScriptedTerminal kicc;
        QVERIFY(kicc.listen(13189, QHostAddress::LocalHost));
        kicc.setScript(
            {devsim::ScriptedTerminal::awaitBytes(request.size()), devsim::ScriptedTerminal::reply("\x06")});
        ServiceProcess service;
        configure(service);
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(terminalFrame(QStringLiteral("KICC"), request));
        QVERIFY(waitUntil([&] { return kicc.closedCount() == 1; }, 3000));
        QCOMPARE(kicc.connections().first().received, request);
        QCOMPARE(pos.texts.size(), 0); // KICC answers on a connection of its own

        QVERIFY(deliverToListener(addresses.first(), 13189, listenerFrame(cp(QStringLiteral("승인 OK")))));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 3000));
        QCOMPARE(jsonObject(pos.texts.first()), expectedAnswer(QStringLiteral("승인 OK"), "TS-132N:TS-167"));
        QVERIFY(!service.stdoutLines().contains(QStringLiteral("Client Comes!")));
    }

    void smartroListenerAnnouncesEachClient() {
        const QStringList addresses = localAddresses();
        QVERIFY2(!addresses.isEmpty(), "this machine has no non-loopback interface up");
        ServiceProcess service;
        configure(service);
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(R"({"requesttype":"noop","van":"none","data":[]})"); // makes the page the held POS
        QVERIFY(service.waitForStdoutLine(recvFired, 3000));
        QVERIFY(deliverToListener(addresses.first(), 5501, listenerFrame("APPROVED")));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 3000));
        QCOMPARE(jsonObject(pos.texts.first()), expectedAnswer(QStringLiteral("APPROVED"), "SMT-T263"));
        QVERIFY(service.stdoutLines().contains(QStringLiteral("Client Comes!")));
    }

    void seventyWaitingKisPaymentsHoldUpNoKitchenOrderAndNoFrame() {
        devsim::ScriptedTerminal kis;
        kis.setListenBacklogSize(128); // all seventy connect at once
        QVERIFY(kis.listen(5000));
        kis.setScript({devsim::ScriptedTerminal::awaitBytes(1),
                       devsim::ScriptedTerminal::reply("\x06")}); // then the customer...
        devsim::Printer printer;
        QVERIFY(printer.listen());
        ServiceProcess service;
        configure(service);
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        for (int i = 0; i < 70; ++i)
            pos.send(terminalFrame(QStringLiteral("KIS"), QByteArray("\x02PAY\x03")));
        QVERIFY(waitUntil([&] { return kis.connections().size() == 70; }, 5000));
        QVERIFY(waitUntil(
            [&] {
                for (const auto &c : kis.connections())
                    if (c.replySentAtMs.isEmpty())
                        return false;
                return true;
            },
            5000));
        keepRunningFor(1200); // every exchange is now past its first read, waiting for the customer
        QCOMPARE(kis.openCount(), 70);

        const qint64 sentAt = printer.nowMs();
        pos.send(kitchenOrderFrame(QStringLiteral("김치찌개 1\n"), printer.port()));
        QVERIFY(waitUntil(
            [&] {
                return !printer.connections().isEmpty() && printer.connections().first().lastByteAtMs >= 0;
            },
            1000));
        QVERIFY2(printer.connections().first().lastByteAtMs - sentAt < 1000,
                 qPrintable(QString::number(printer.connections().first().lastByteAtMs - sentAt)));

        const qint64 secondAt = kis.nowMs();
        pos.send(terminalFrame(QStringLiteral("KIS"), QByteArray("\x02SECOND\x03")));
        QVERIFY(waitUntil(
            [&] { return kis.connections().size() == 71 && kis.connections().last().received.size() == 8; },
            1000));
        QVERIFY2(kis.connections().last().receivedAtMs.last() - secondAt < 300,
                 qPrintable(QString::number(kis.connections().last().receivedAtMs.last() - secondAt)));
        QCOMPARE(kis.openCount(), 71);
        QVERIFY(service.isRunning());
    }

    void kisResultOfThreeBytesOrFewerStopsTheService_data() {
        QTest::addColumn<QByteArray>("result");
        QTest::newRow("3 bytes") << QByteArray("\x02"
                                               "A\x03");
        QTest::newRow("2 bytes") << QByteArray("\x02\x03");
        QTest::newRow("1 byte") << QByteArray("\x15");
    }
    void kisResultOfThreeBytesOrFewerStopsTheService() {
        QFETCH(QByteArray, result);
        devsim::ScriptedTerminal kis;
        kis.setListenBacklogSize(128); // all seventy connect at once
        QVERIFY(kis.listen(5000));
        kis.setScript({devsim::ScriptedTerminal::awaitBytes(1), devsim::ScriptedTerminal::reply("\x06"),
                       devsim::ScriptedTerminal::reply(result, 200)});
        ServiceProcess service;
        configure(service);
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(terminalFrame(QStringLiteral("KIS"), QByteArray("\x02PAY\x03")));
        QVERIFY(service.waitForExit(5000));
        QCOMPARE(service.exitStatus(), QProcess::NormalExit);
        QVERIFY(service.exitCode() != 0);
        const QStringList errors = service.stderrLines();
        QCOMPARE(errors.size(), 1);
        QVERIFY2(errors.first().startsWith(QStringLiteral("fatal: ")), qPrintable(errors.first()));
        QCOMPARE(pos.texts.size(), 0);
    }

    void refusedConnectionPrintsOneErrorLine() {
        QTcpServer probe; // nothing listens on 127.0.0.1:5000 unless this test's own server
        ServiceProcess service;
        configure(service);
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(terminalFrame(QStringLiteral("KIS"), QByteArray("\x02PAY\x03")));
        QVERIFY(service.waitForStdoutLineCount(3, 3000));
        keepRunningFor(1500);
        const QStringList lines = service.stdoutLines();
        QCOMPARE(lines.size(), 3); // the marker, the dispatcher's line, the error
        QCOMPARE(lines[0], recvFired);
        QVERIFY2(lines[2].contains(QStringLiteral("127.0.0.1:5000")) &&
                     lines[2].contains(QStringLiteral("refused")),
                 qPrintable(lines[2]));
        QCOMPARE(pos.texts.size(), 0);
        QVERIFY(service.isRunning());
    }

    void takenListenerPortPrintsTheErrorAndEverythingElseRuns() {
        const QStringList addresses = localAddresses();
        QVERIFY2(!addresses.isEmpty(), "this machine has no non-loopback interface up");
        QTcpServer squatter;
        QVERIFY(squatter.listen(QHostAddress(addresses.first()), 13189));
        ServiceProcess service;
        configure(service);
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        QVERIFY(service.waitForStdoutLineCount(1, 3000));
        const QStringList lines = service.stdoutLines();
        QCOMPARE(lines.size(), 1);
        QVERIFY2(lines[0].contains(QStringLiteral("13189")), qPrintable(lines[0]));
        // The SMARTRO listener and the gateway are up all the same.
        pos.send(R"({"requesttype":"noop","van":"none","data":[]})");
        QVERIFY(service.waitForStdoutLine(recvFired, 3000));
        QVERIFY(deliverToListener(addresses.first(), 5501, listenerFrame("OK")));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 3000));
        QVERIFY(service.isRunning());
    }
};

QTEST_GUILESS_MAIN(TcpTerminalTest)
#include "tst_tcpterminal.moc"
