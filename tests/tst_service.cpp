// The real `teranocounter --headless`, seen from outside: a POS on ws://127.0.0.1:49999/,
// printers on loopback, its standard output and its settings file.
#include "devsim/printer.h"
#include "devsim/switchedoffdevice.h"
#include "localaddress.h"
#include "posclient.h"
#include "servicefixture.h"
#include "serviceprocess.h"
#include "wait.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTcpServer>
#include <QtTest>
#include <csignal>

namespace {
constexpr quint16 gatewayPort = ServiceProcess::gatewayPort;
const QString &recvFired = ServiceProcess::recvFired;
} // namespace

class ServiceTest : public QObject {
    Q_OBJECT
private slots:
    void init() { QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use"); }

    // A settings file that is not settings (binary garbage, a half-written copy) is kept
    // aside for whoever can recover it, not rewritten with only the next key.
    void settingsFileThatCannotBeReadIsKeptAsideNotRewritten() {
        ServiceProcess service;
        QVERIFY(QDir().mkpath(QFileInfo(service.settingsFile()).absolutePath()));
        QByteArray garbage;
        for (int i = 0; i < 256; ++i)
            garbage.append(static_cast<char>((i * 37) % 256));
        {
            QFile damaged(service.settingsFile());
            QVERIFY(damaged.open(QIODevice::WriteOnly));
            damaged.write(garbage);
        }
        QByteArray out, err;
        QCOMPARE(service.runToEnd({"--set", "MAIN_INTERFACE=TCP"}, &out, &err), 0);
        const QDir folder(QFileInfo(service.settingsFile()).absolutePath());
        const QStringList aside =
            folder.entryList({QStringLiteral("teranocounter.conf.unreadable-*")}, QDir::Files);
        QCOMPARE(aside.size(), 1);
        QVERIFY2(QRegularExpression(QStringLiteral("^teranocounter\\.conf\\.unreadable-\\d{8}T\\d{6}Z$"))
                     .match(aside.first())
                     .hasMatch(),
                 qPrintable(aside.first()));
        QCOMPARE(QString::fromUtf8(out),
                 QStringLiteral("settings file %1 cannot be read as settings: kept aside as "
                                "%2; starting from the defaults\n")
                     .arg(service.settingsFile(), folder.filePath(aside.first())));
        QCOMPARE(err, QByteArray());
        QFile kept(folder.filePath(aside.first()));
        QVERIFY(kept.open(QIODevice::ReadOnly));
        QCOMPARE(kept.readAll(), garbage);
        QCOMPARE(service.runToEnd({"--settings"}, &out), 0);
        QCOMPARE(out, QByteArray("MAIN_INTERFACE=TCP\n"));
        // Private to the user, folder and file.
        QCOMPARE(QFileInfo(folder.path()).permissions() & 0x0077, QFileDevice::Permissions()); // group, other
        QCOMPARE(QFileInfo(service.settingsFile()).permissions() &
                     (QFileDevice::ReadGroup | QFileDevice::ReadOther | QFileDevice::WriteGroup |
                      QFileDevice::WriteOther),
                 QFileDevice::Permissions());
    }

    // A supervisor's SIGTERM can come at any moment, also while the first start writes its
    // settings (QSettings holds a lock file across the write). Ending there left the lock
    // behind, and the next start waited half a minute in its own first write, with the POS
    // port listening and no handshake answered. The service still ends of the signal.
    void terminatedAsSoonAsItListensLeavesNoSettingsLockBehind() {
        for (int round = 0; round < 30; ++round) {
            ServiceProcess service; // a fresh HOME: this start writes the terminal's default
            QVERIFY(service.start());
            QCOMPARE(::kill(static_cast<pid_t>(service.pid()), SIGTERM), 0);
            QVERIFY(service.waitForExit(5000));
            QCOMPARE(service.exitStatus(), QProcess::CrashExit);
            QCOMPARE(service.exitCode(), SIGTERM);
            const QStringList left = QDir(QFileInfo(service.settingsFile()).absolutePath())
                                         .entryList({QStringLiteral("*.lock"), QStringLiteral("*.rmlock")},
                                                    QDir::Files | QDir::Hidden);
            QVERIFY2(left.isEmpty(),
                     qPrintable(
                         QStringLiteral("round %1 left %2").arg(round).arg(left.join(QStringLiteral(", ")))));
        }
    }

    void kitchenOrderReachesThePrinterInCodePage949() {
        devsim::Printer printer;
        QVERIFY(printer.listen(9100));
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(kitchenOrderFrame(QStringLiteral("주문: 김치찌개 2, 똠얌꿍 1\n"), 9100));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 1; }, 5000));
        const auto &c = printer.connections().first();
        QCOMPARE(c.received, QByteArray::fromHex("c1d6b9ae3a20b1e8c4a1c2eeb0b320322c208c63bee4b2e120310a"));
        const qint64 held = c.closedAtMs - c.lastByteAtMs;
        QVERIFY2(held >= 900 && held <= 1500,
                 qPrintable(QStringLiteral("closed %1 ms after the send").arg(held)));
        keepRunningFor(300);
        QCOMPARE(pos.texts.size(), 0); // a kitchen order has no answer
        QVERIFY(!pos.disconnected);
        QCOMPARE(service.stdoutLines(), QStringList{recvFired});
        QVERIFY(service.isRunning());
    }

    void tenOrdersToASilentPrinterAllArriveWithinOneSecond() {
        devsim::Printer printer;
        QVERIFY(printer.listen());
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        const qint64 sentAt = printer.nowMs();
        for (int i = 0; i < 10; ++i)
            pos.send(kitchenOrderFrame(QStringLiteral("주문 %1번\n").arg(i), printer.port()));
        const QByteArray expectedTail = QByteArray::fromHex("b9f80a"); // "번\n"
        QVERIFY(waitUntil(
            [&] {
                int complete = 0;
                for (const auto &c : printer.connections())
                    complete += c.received.endsWith(expectedTail);
                return complete == 10;
            },
            1000));
        for (const auto &c : printer.connections())
            QVERIFY2(c.lastByteAtMs - sentAt < 1000, qPrintable(QString::number(c.lastByteAtMs - sentAt)));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 10; }, 3000));
        QCOMPARE(service.stdoutLines().count(recvFired), 10);
    }

    void unreachablePrinterPrintsOneLineAndTheServiceGoesOn() {
        const quint16 deadPort = devsim::refusingPort();
        QVERIFY(deadPort != 0);

        ServiceProcess service;
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(kitchenOrderFrame(QStringLiteral("김치찌개\n"), deadPort));
        QVERIFY(service.waitForStdoutLineCount(2, 3000));
        keepRunningFor(500);
        const QStringList lines = service.stdoutLines();
        QCOMPARE(lines.size(), 2);
        QCOMPARE(lines[0], recvFired);
        QVERIFY2(lines[1].contains(QStringLiteral("127.0.0.1:%1").arg(deadPort)), qPrintable(lines[1]));
        QVERIFY(service.isRunning());
        QCOMPARE(pos.texts.size(), 0);

        // and the next order still prints
        devsim::Printer printer;
        QVERIFY(printer.listen());
        pos.send(kitchenOrderFrame(QStringLiteral("OK\n"), printer.port()));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 1; }, 5000));
        QCOMPARE(printer.connections().first().received, QByteArray("OK\n"));
    }

    void printerAddressWithALineBreakStillGivesOneLine() {
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(R"({"requesttype":"kitchenPrint","data":[65],"ip":"no\nsuch.invalid","port":9100})");
        QVERIFY(service.waitForStdoutLineCount(2, 5000));
        keepRunningFor(1500);
        const QStringList lines = service.stdoutLines();
        QCOMPARE(lines.size(), 2);
        QVERIFY2(lines[1].contains(QStringLiteral("no\\nsuch.invalid")), qPrintable(lines[1]));
        QVERIFY(service.isRunning());
    }

    void printerThatNeverAnswersTheConnectTimesOutInOneSecond() {
        devsim::SwitchedOffDevice dead;
        QVERIFY(dead.open());
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        QElapsedTimer clock;
        clock.start();
        pos.send(kitchenOrderFrame(QStringLiteral("ORDER\n"), dead.port()));
        QVERIFY(service.waitForStdoutLineCount(2, 3000));
        const qint64 elapsed = clock.elapsed();
        QVERIFY2(elapsed >= 900 && elapsed <= 1600, qPrintable(QString::number(elapsed)));
        QVERIFY(service.stdoutLines()[1].contains(QStringLiteral("timed out")));
        QVERIFY(service.isRunning());
    }

    void takenGatewayPortPrintsOneLineAndTheServiceKeepsRunning() {
        QTcpServer squatter;
        QVERIFY(squatter.listen(QHostAddress::Any, gatewayPort));
        ServiceProcess service;
        QVERIFY(service.start(false));
        QVERIFY(service.waitForStdoutLineCount(1, 10000));
        keepRunningFor(1000);
        QVERIFY(service.isRunning());
        const QStringList lines = service.stdoutLines();
        QCOMPARE(lines.size(), 1);
        QVERIFY2(lines[0].contains(QStringLiteral("49999")), qPrintable(lines[0]));
        QCOMPARE(service.stderrLines(), QStringList());
    }

    void otherPathIsAnswered404AndNotUpgraded() {
        ServiceProcess service;
        QVERIFY(service.start());
        const QByteArray answer = rawHandshake(gatewayPort, "/other");
        QVERIFY2(answer.startsWith("HTTP/1.1 404"), answer.constData());
        QVERIFY(!answer.contains("Sec-WebSocket-Accept"));
        QVERIFY(rawHandshake(gatewayPort, "/").startsWith("HTTP/1.1 101"));
        QVERIFY(service.isRunning());
    }

    void everyFramePrintsTheMarkerFirst() {
        ServiceProcess service;
        service.set(QStringLiteral("MAIN_INTERFACE"), QStringLiteral("BT"));
        QVERIFY(service.start());
        PosClient pos;
        QVERIFY(pos.open(gatewayPort));
        pos.send(R"({"requesttype":"print","data":[1,2],"secret":"do not log me"})");
        QVERIFY(service.waitForStdoutLine(recvFired, 3000));
        // Frames are read in order: whatever the dropped frame printed comes before the
        // marker of a kitchen order sent after it.
        QVERIFY(probeKitchenOrder(pos));
        // Only the marker: never the frame's content.
        QCOMPARE(service.stdoutLinesWrittenByNow(), (QStringList{recvFired, recvFired}));
        QVERIFY(service.isRunning());
    }

    void kitchenOrderPrintsWhileNoInterfaceIsSet() {
        devsim::Printer printer;
        QVERIFY(printer.listen());
        ServiceProcess service;
        QVERIFY(service.start());
        QByteArray settings;
        QCOMPARE(service.runToEnd({"--settings"}, &settings), 0);
        QVERIFY(!settings.contains("MAIN_INTERFACE"));
        PosClient pos;
        QVERIFY(pos.open(gatewayPort));
        pos.send(kitchenOrderFrame(QStringLiteral("A\n"), printer.port()));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 1; }, 5000));
        QCOMPARE(printer.connections().first().received, QByteArray("A\n"));
        QVERIFY(service.isRunning());
    }

    void unknownInterfaceDropsTerminalRequestsSilently_data() {
        QTest::addColumn<QString>("interface");
        QTest::newRow("BT") << "BT";
        QTest::newRow("tcp") << "tcp";
        QTest::newRow("Usb") << "Usb";
    }
    void unknownInterfaceDropsTerminalRequestsSilently() {
        QFETCH(QString, interface);
        ServiceProcess service;
        service.set(QStringLiteral("MAIN_INTERFACE"), interface);
        QVERIFY(service.start());
        PosClient pos;
        QVERIFY(pos.open(gatewayPort));
        pos.send(R"({"requesttype":"KitchenPrint","data":[65],"ip":"127.0.0.1","port":9})");
        pos.send(R"({"requesttype":5,"data":[]})");
        QVERIFY(waitUntil([&] { return service.stdoutLines().size() >= 2; }, 3000));
        // A "KitchenPrint" taken for a kitchen order would print its printer's refusal only
        // once the connection is refused: no probe is ordered after that.
        keepRunningFor(300);
        QCOMPARE(service.stdoutLines(), (QStringList{recvFired, recvFired}));
        QVERIFY(service.isRunning());
        QCOMPARE(pos.texts.size(), 0);
    }

    void binaryFrameProducesNothing() {
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.socket.sendBinaryMessage("not json at all \xff");
        pos.socket.flush();
        // Frames are read in order: the marker of a kitchen order sent after it comes after
        // anything the binary frame made.
        QVERIFY(probeKitchenOrder(pos));
        QCOMPARE(service.stdoutLinesWrittenByNow(), QStringList{recvFired});
        QVERIFY(service.isRunning());
        QVERIFY(!pos.disconnected);
    }

    void secondSenderDisplacesTheFirst() {
        ServiceProcess service;
        service.set(QStringLiteral("MAIN_INTERFACE"), QStringLiteral("BT"));
        QVERIFY(service.start());
        PosClient a, b;
        QVERIFY(a.open(gatewayPort));
        QVERIFY(b.open(gatewayPort));
        a.send(R"({"requesttype":"print","data":[]})");
        QVERIFY(service.waitForStdoutLineCount(1, 3000));
        keepRunningFor(200);
        QVERIFY(!a.disconnected); // connecting alone displaces nobody
        b.send(R"({"requesttype":"print","data":[]})");
        QVERIFY(waitUntil([&] { return a.disconnected; }, 3000));
        QCOMPARE(a.closeCode, QWebSocketProtocol::CloseCodeNormal);
        QVERIFY(!b.disconnected);
    }

    void unfinishedHandshakeIsDroppedAfterTenSeconds() {
        ServiceProcess service;
        QVERIFY(service.start());
        QTcpSocket idle, partial;
        idle.connectToHost(QHostAddress::LocalHost, gatewayPort);
        partial.connectToHost(QHostAddress::LocalHost, gatewayPort);
        QVERIFY(idle.waitForConnected(2000));
        QVERIFY(partial.waitForConnected(2000));
        partial.write("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n");
        QElapsedTimer clock;
        clock.start();
        QVERIFY(waitUntil([&] { return idle.state() == QAbstractSocket::UnconnectedState; }, 15000));
        QVERIFY(waitUntil([&] { return partial.state() == QAbstractSocket::UnconnectedState; }, 2000));
        QVERIFY2(clock.elapsed() >= 9500 && clock.elapsed() <= 11500,
                 qPrintable(QString::number(clock.elapsed())));
        QVERIFY(service.isRunning());
    }

    void messageOver16MiBIsRefusedWith1009AndTheServiceGoesOn() {
        devsim::Printer printer;
        QVERIFY(printer.listen());
        ServiceProcess service;
        QVERIFY(service.start());
        PosClient big;
        QVERIFY(big.open(gatewayPort));
        big.send(QString(16 * 1024 * 1024 + 1, u'x'));
        QVERIFY(waitUntil([&] { return big.disconnected; }, 20000));
        QCOMPARE(big.closeCode, QWebSocketProtocol::CloseCodeTooMuchData);
        QCOMPARE(service.stdoutLines(), QStringList()); // never routed
        QVERIFY(service.isRunning());

        PosClient next;
        QVERIFY(next.open(gatewayPort));
        next.send(kitchenOrderFrame(QStringLiteral("OK\n"), printer.port()));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 1; }, 5000));
    }

    void disallowedOriginIsRefused403() {
        ServiceProcess service;
        service.set(QStringLiteral("WEBSOCKET_ALLOWED_ORIGINS"),
                    QStringLiteral("http://localhost:3000,http://pos.local"));
        QVERIFY(service.start());
        QVERIFY(
            rawHandshake(gatewayPort, "/", "Origin: http://attacker.example\r\n").startsWith("HTTP/1.1 403"));
        QVERIFY(rawHandshake(gatewayPort, "/", "Origin: http://pos.local\r\n").startsWith("HTTP/1.1 101"));
        QVERIFY(rawHandshake(gatewayPort, "/").startsWith("HTTP/1.1 101"));
    }

    void gatewayListensOnLoopbackOnly() {
        const auto outside = nonLoopbackIPv4();
        if (!outside)
            QSKIP("this machine has no address besides loopback");
        ServiceProcess service;
        QVERIFY(service.start());
        QTcpSocket fromOutside;
        fromOutside.connectToHost(*outside, gatewayPort);
        QVERIFY(!fromOutside.waitForConnected(1000));
    }

    void listenAllOpensTheGatewayToTheNetwork() {
        const auto outside = nonLoopbackIPv4();
        if (!outside)
            QSKIP("this machine has no address besides loopback");
        ServiceProcess service;
        service.set(QStringLiteral("WEBSOCKET_LISTEN_ALL"), QStringLiteral("true"));
        QVERIFY(service.start());
        PosClient pos;
        pos.socket.open(QUrl(QStringLiteral("ws://%1:%2/").arg(outside->toString()).arg(gatewayPort)));
        QVERIFY(waitUntil([&] { return pos.socket.state() == QAbstractSocket::ConnectedState; }, 5000));
    }

    void portAsNumberOrStringPrintsTheSame_data() {
        QTest::addColumn<QString>("portTemplate");
        QTest::newRow("number") << "%1";
        QTest::newRow("string") << "\"%1\"";
        QTest::newRow("string with plus") << "\"+%1\"";
        QTest::newRow("whole number with exponent") << "%1e0";
    }
    void portAsNumberOrStringPrintsTheSame() {
        QFETCH(QString, portTemplate);
        devsim::Printer printer;
        QVERIFY(printer.listen());
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(
            QStringLiteral(
                R"({"requesttype":"kitchenPrint","data":[236,163,188,235,172,184],"ip":"127.0.0.1","port":%1})")
                .arg(portTemplate.arg(printer.port())));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 1; }, 5000));
        QCOMPARE(printer.connections().first().received, QByteArray::fromHex("c1d6b9ae")); // 주문
        QVERIFY(service.isRunning());
    }

    void setWritesTheSettingsFileAndSettingsPrintsIt() {
        ServiceProcess service;
        QCOMPARE(service.runToEnd({"--set", "MAIN_INTERFACE=TCP", "--set", "TCP_IP=192.168.0.7"}), 0);
        QFile file(service.settingsFile());
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray contents = file.readAll();
        QVERIFY(contents.contains("[General]"));
        QVERIFY(contents.contains("MAIN_INTERFACE=TCP"));
        QVERIFY(contents.contains("TCP_IP=192.168.0.7"));
        QByteArray out;
        QCOMPARE(service.runToEnd({"--settings"}, &out), 0);
        QCOMPARE(out, QByteArray("MAIN_INTERFACE=TCP\nTCP_IP=192.168.0.7\n"));
        QByteArray err;
        QCOMPARE(service.runToEnd({"--frobnicate"}, nullptr, &err), 2);
        QVERIFY(err.contains("--frobnicate"));
    }
};

QTEST_GUILESS_MAIN(ServiceTest)
#include "tst_service.moc"
