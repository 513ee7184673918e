// The real `teranocounter --headless` against the real `teranocounter-devsim`: a kitchen
// order on the simulated printer, and payments through each simulated card terminal, as a
// POS developer without hardware would run them.
#include "common/localaddresses.h"
#include "devsimprocess.h"
#include "posclient.h"
#include "servicefixture.h"
#include "serviceprocess.h"
#include "terminalframes.h"
#include "wait.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {

QString serialPayment(const QByteArray &data) {
    QStringList values;
    for (const char c : data)
        values << QString::number(static_cast<unsigned char>(c));
    return QStringLiteral(R"({"requesttype":"payment","data":[%1]})").arg(values.join(u','));
}

// The service with USB active, the simulated terminal's link as its port and `model` as
// its device type.
bool startWithSerialTerminal(ServiceProcess &service, PosClient &pos, const QString &link,
                             const QString &model) {
    qputenv("TERANOCOUNTER_SERIAL_PORTS", QFile::encodeName(link));
    service.set(QStringLiteral("MAIN_INTERFACE"), QStringLiteral("USB"));
    service.set(QStringLiteral("USB_PORT"), link);
    service.set(QStringLiteral("SERIAL_DEVICE_TYPE"), model);
    const bool started = startAndConnect(service, pos);
    qunsetenv("TERANOCOUNTER_SERIAL_PORTS");
    return started;
}

// The service opens the port a moment after it has seen it; a payment sent before that
// finds no port and is lost. So a payment goes every 300 ms until one is answered.
bool payUntilAnswered(PosClient &pos, int timeoutMs) {
    return waitUntil(
        [&] {
            if (pos.texts.isEmpty())
                pos.send(serialPayment("PAY"));
            return waitUntil([&] { return !pos.texts.isEmpty(); }, 300);
        },
        timeoutMs);
}

} // namespace

class DevsimServiceTest : public QObject {
    Q_OBJECT

    void startWithTcpTerminal(ServiceProcess &service, PosClient &pos, const QString &vendor) {
        service.set(QStringLiteral("MAIN_INTERFACE"), QStringLiteral("TCP"));
        service.set(QStringLiteral("TCP_DEVICE"), vendor);
        service.set(QStringLiteral("TCP_IP"), QStringLiteral("127.0.0.1"));
        QVERIFY(startAndConnect(service, pos));
    }

private slots:
    void init() { QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use"); }

    void kitchenOrderIsShownDecodedOnThePrinter() {
        DevsimProcess printer;
        QVERIFY(printer.start({"printer", "--port", "9150"}));
        QCOMPARE(printer.lines().first(), QStringLiteral("printer listening on 127.0.0.1:9150; each job is "
                                                         "shown when its sender closes"));
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(kitchenOrderFrame(QStringLiteral("김치찌개 2\n"), 9150));
        const QString job = printer.waitForLineWith({QStringLiteral("김치찌개 2")}, 5000);
        QVERIFY2(!job.isEmpty(), qPrintable(printer.lines().join(u'\n')));
        // The job as the printer got it: code page 949 in hex, and decoded.
        QVERIFY2(job.contains(QStringLiteral(" printer job from 127.0.0.1:")), qPrintable(job));
        QVERIFY2(job.contains(QStringLiteral("| b1 e8 c4 a1 c2 ee b0 b3 20 32 0a | 김치찌개 2<LF>")),
                 qPrintable(job));
        QCOMPARE(printer.lines().size(), 2);
        qInfo("%s", qPrintable(printer.lines().join(u'\n')));
    }

    void kisPaymentReachesThePosWithTheSimulatorsAnswer() {
        DevsimProcess kis;
        QVERIFY(kis.start({"terminal", "kis", "--answer", QStringLiteral("승인 12345"), "--delay", "300"}));
        ServiceProcess service;
        PosClient pos;
        startWithTcpTerminal(service, pos, QStringLiteral("KIS"));
        pos.send(terminalFrame(QStringLiteral("KIS"), QByteArray("\x02PAY0001000\x03")));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 5000));
        QCOMPARE(pos.texts.first(),
                 QStringLiteral(
                     R"({"response":{"data":"승인 12345"},"devicetype":"CAT","devicename":"KIS7430"})"));
        // What crossed the wire: the request, the acknowledgement, the framed result.
        QVERIFY(
            !kis.waitForLineWith({" kis recv from 127.0.0.1:", "| <STX>PAY0001000<ETX>"}, 1000).isEmpty());
        QVERIFY(!kis.waitForLineWith({" kis send to ", "1 bytes | 06 | <ACK>"}, 1000).isEmpty());
        QVERIFY(!kis.waitForLineWith({" kis send to ", "| <STX>00승인 12345<ETX>"}, 1000).isEmpty());
        qInfo("%s", qPrintable(kis.lines().join(u'\n')));
        QVERIFY(service.isRunning());
    }

    void smartroPaymentEndsWithTheDleReplyAtThePos() {
        DevsimProcess smartro;
        QVERIFY(smartro.start(
            {"terminal", "smartro", "--answer", QStringLiteral("정상승인 5000원"), "--delay", "200"}));
        ServiceProcess service;
        PosClient pos;
        startWithTcpTerminal(service, pos, QStringLiteral("SMARTRO"));
        pos.send(terminalFrame(QStringLiteral("SMARTRO"), QByteArray("\x02SMARTRO-PAY\x03")));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 5000));
        // The service hands the DLE reply on whole, its DLE byte included.
        QCOMPARE(jsonObject(pos.texts.first()),
                 expectedAnswer(QStringLiteral("\x10정상승인 5000원"), QStringLiteral("SMT-T263")));
        const QStringList lines = service.stdoutLines();
        QCOMPARE(lines.count(QStringLiteral("ack success")), 2);
        QVERIFY(lines.contains(QStringLiteral("DLE COMES!")));
        // Both of the terminal's later replies were acknowledged on its wire.
        QVERIFY(waitUntil(
            [&] { return smartro.lines().filter(QStringLiteral("3 bytes | 06 06 06 |")).size() == 2; },
            2000));
    }

    void kiccPaymentComesBackThroughTheAnswerListener() {
        const QStringList addresses = localAddresses();
        QVERIFY2(!addresses.isEmpty(), "this machine has no non-loopback interface up");
        DevsimProcess kicc;
        QVERIFY(kicc.start({"terminal", "kicc", "--answer", QStringLiteral("승인 OK"), "--delay", "200"}));
        // By default it answers where the service listens: the first address, port 13189.
        QCOMPARE(kicc.lines().first(),
                 QStringLiteral("kicc terminal listening on 127.0.0.1:13189, answers to %1:13189")
                     .arg(addresses.first()));
        ServiceProcess service;
        PosClient pos;
        startWithTcpTerminal(service, pos, QStringLiteral("KICC"));
        pos.send(terminalFrame(QStringLiteral("KICC"), QByteArray("\x02KICC-REQ\x03")));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 5000));
        QCOMPARE(jsonObject(pos.texts.first()),
                 expectedAnswer(QStringLiteral("승인 OK"), QStringLiteral("TS-132N:TS-167")));
        QVERIFY(!kicc.waitForLineWith(
                         {" kicc answer to " + addresses.first() + ":13189", "<STX>0000승인 OK<ETX>00"}, 1000)
                     .isEmpty());
    }

    void answersCutIntoPiecesReachThePosWhole_data() {
        QTest::addColumn<QString>("vendor");
        QTest::addColumn<QString>("posText");
        QTest::addColumn<QString>("deviceName");
        QTest::newRow("KIS") << "KIS" << QStringLiteral("정상승인 금액 15000원") << "KIS7430";
        QTest::newRow("SMARTRO") << "SMARTRO" << QStringLiteral("\x10정상승인 금액 15000원") << "SMT-T263";
        QTest::newRow("KICC") << "KICC" << QStringLiteral("정상승인 금액 15000원") << "TS-132N:TS-167";
    }
    void answersCutIntoPiecesReachThePosWhole() {
        QFETCH(QString, vendor);
        QFETCH(QString, posText);
        QFETCH(QString, deviceName);
        if (vendor == QLatin1String("KICC"))
            QVERIFY2(!localAddresses().isEmpty(), "this machine has no non-loopback interface up");
        // As a terminal on Wi-Fi sends it: the answer in 5 pieces, 150 ms apart.
        DevsimProcess terminal;
        QVERIFY(
            terminal.start({"terminal", vendor.toLower(), "--answer", QStringLiteral("정상승인 금액 15000원"),
                            "--delay", "100", "--pieces", "5", "--piece-gap", "150"}));
        QVERIFY2(terminal.lines().first().endsWith(QStringLiteral(", each answer in 5 pieces 150 ms apart")),
                 qPrintable(terminal.lines().first()));
        ServiceProcess service;
        PosClient pos;
        startWithTcpTerminal(service, pos, vendor);
        pos.send(terminalFrame(vendor, QByteArray("\x02PAY0015000\x03")));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 5000));
        QCOMPARE(jsonObject(pos.texts.first()), expectedAnswer(posText, deviceName));
        // Five pieces went out for the answer.
        const QString sent =
            vendor == QLatin1String("KICC") ? QStringLiteral(" answer to ") : QStringLiteral(" send to ");
        QVERIFY(waitUntil([&] { return terminal.lines().filter(sent).size() >= 5; }, 2000));
        qInfo("%s", qPrintable(terminal.lines().join(u'\n')));
        QVERIFY(!service.stdoutLines().contains(QStringLiteral("euc failed")));
        keepRunningFor(500);
        QCOMPARE(pos.texts.size(), 1);
    }

    void serialPaymentThroughASimulatedTs132n() {
        QTemporaryDir dir;
        const QString link = dir.filePath(QStringLiteral("ts132n"));
        DevsimProcess terminal;
        QVERIFY(terminal.start(
            {"serial", "--model", "TS-132N", "--link", link, "--answer", QStringLiteral("승인 777")}));
        const QString path = terminal.lines().first();
        QCOMPARE(path, link);
        QVERIFY(QFile::exists(path));

        ServiceProcess service;
        PosClient pos;
        QVERIFY(startWithSerialTerminal(service, pos, path, QStringLiteral("TS-132N")));
        QVERIFY(payUntilAnswered(pos, 5000));
        QCOMPARE(
            pos.texts.first(),
            QStringLiteral(R"({"response":{"data":"승인 777"},"devicetype":"CAT","devicename":"TS-132N"})"));
        QVERIFY(!terminal.waitForLineWith({" TS-132N recv ", "| PAY"}, 1000).isEmpty());
        QVERIFY(!terminal.waitForLineWith({" TS-132N send ", "| <STX>0000승인 77700<ETX>"}, 1000).isEmpty());
    }

    void serialTerminalUnpluggedAndBackIsOpenedAgain() {
        QTemporaryDir dir;
        const QString link = dir.filePath(QStringLiteral("kis7430"));
        DevsimProcess terminal;
        // In and out for 2 s at a time: long enough that the link is still as the line says
        // when the test, on a busy machine, has read that line.
        QVERIFY(terminal.start({"serial", "--model", "KIS-7430", "--link", link, "--answer",
                                QStringLiteral("재승인"), "--unplug-after", "2", "--unplug-for", "2"}));
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startWithSerialTerminal(service, pos, link, QStringLiteral("KIS-7430")));

        const QString unplugged = QStringLiteral("KIS-7430 unplugged from ") + link;
        const QString pluggedIn = QStringLiteral("KIS-7430 plugged in again at ") + link;
        const auto linesWith = [&](const QString &text) { return terminal.lines().filter(text).size(); };
        QVERIFY(!terminal.waitForLineWith({unplugged}, 5000).isEmpty());
        // The link is gone, unless a test slowed down by a busy machine read the line after
        // the terminal was plugged in again.
        QVERIFY(!QFile::exists(link) || !terminal.waitForLineWith({pluggedIn}, 8000).isEmpty());
        QVERIFY(!terminal.waitForLineWith({pluggedIn}, 8000).isEmpty());
        // And it is back, unless it has gone again since.
        QVERIFY(waitUntil([&] { return QFile::exists(link) || linesWith(unplugged) > 1; }, 5000));
        // Whatever answers is the terminal as plugged in again: nothing was sent before. It
        // goes again 2 s later; then the next time it is back.
        QVERIFY(payUntilAnswered(pos, 10000));
        QCOMPARE(
            pos.texts.first(),
            QStringLiteral(R"({"response":{"data":"재승인"},"devicetype":"CAT","devicename":"KIS-7430"})"));
    }

    void mistakesOnTheCommandLineAreOneLineErrors_data() {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("error");
        QTest::newRow("unknown terminal")
            << QStringList{"terminal", "foo"}
            << QStringLiteral(R"(teranocounter-devsim: unknown terminal "foo" (kis, kicc or smartro))");
        QTest::newRow("unknown model")
            << QStringList{"serial", "--model", "X-1"}
            << QStringLiteral(
                   R"(teranocounter-devsim: unknown model "X-1" (TS-132N, TS-167, SMT-T263, KIS-7430))");
        QTest::newRow("port not a number")
            << QStringList{"printer", "--port", "x"}
            << QStringLiteral("teranocounter-devsim: --port takes a number from "
                              "1 to 65535");
        QTest::newRow("answer without code page 949")
            << QStringList{"terminal", "kis", "--answer", QStringLiteral("승인 😀")}
            << QStringLiteral(
                   "teranocounter-devsim: --answer has characters that code page 949 does not have");
        QTest::newRow("pieces not a number")
            << QStringList{"terminal", "kis", "--pieces", "0"}
            << QStringLiteral("teranocounter-devsim: --pieces takes a number from 1 to 64");
        QTest::newRow("unknown command")
            << QStringList{"scanner"}
            << QStringLiteral(R"(teranocounter-devsim: unknown command "scanner"; )"
                              "see --help");
    }
    void mistakesOnTheCommandLineAreOneLineErrors() {
        QFETCH(QStringList, arguments);
        QFETCH(QString, error);
        QProcess devsim;
        devsim.start(QStringLiteral(DEVSIM_BIN), arguments);
        QVERIFY(devsim.waitForFinished(5000));
        QCOMPARE(devsim.exitCode(), 2);
        QCOMPARE(QString::fromUtf8(devsim.readAllStandardError()), error + u'\n');
        QCOMPARE(devsim.readAllStandardOutput(), QByteArray());
    }

    void aTakenPortIsSaidAndTheSimulatorEnds() {
        DevsimProcess first;
        QVERIFY(first.start({"printer", "--port", "9150"}));
        QProcess second;
        second.start(QStringLiteral(DEVSIM_BIN), {"printer", "--port", "9150"});
        QVERIFY(second.waitForFinished(5000));
        QCOMPARE(second.exitCode(), 2);
        const QString error = QString::fromUtf8(second.readAllStandardError());
        QVERIFY2(error.startsWith(
                     QStringLiteral("teranocounter-devsim: printer cannot listen on 127.0.0.1:9150: ")) &&
                     error.count(u'\n') == 1,
                 qPrintable(error));
        QVERIFY(first.isRunning());
    }
};

QTEST_GUILESS_MAIN(DevsimServiceTest)
#include "tst_devsimservice.moc"
