// Keeping what could not be delivered, as a shop that turns it on sees it: the real service
// with HOLD_UNDELIVERED_ANSWERS and KITCHEN_RETRY_MINUTES, POS pages that reload, printers
// that are switched off and on, and SIGKILL in between.
#include "common/cp949.h"
#include "common/localaddresses.h"
#include "devsim/answercall.h"
#include "devsim/printer.h"
#include "devsim/scriptedterminal.h"
#include "devsim/vendorscripts.h"
#include "posclient.h"
#include "servicefixture.h"
#include "serviceprocess.h"
#include "smalldisk.h"
#include "terminalframes.h"
#include "wait.h"

#include <QDir>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTcpServer>
#include <QtTest>
#include <sys/stat.h>

namespace {

const QString &recvFired = ServiceProcess::recvFired;
const QString approval = QStringLiteral("승인 완료 4321");
const QString probeApproval = QStringLiteral("승인 완료 5555");

bool answerIsWaiting(ServiceProcess &service) {
    return waitUntil([&] { return service.pendingLines().join(u'\n').contains("answer waiting"); }, 20000);
}

const QStringList kisOnLoopback{"MAIN_INTERFACE=TCP", "TCP_IP=127.0.0.1"};
const QString holdAnswers = QStringLiteral("HOLD_UNDELIVERED_ANSWERS=true");
const QString retryFiveMinutes = QStringLiteral("KITCHEN_RETRY_MINUTES=5");

// Writes the settings, then starts the service.
bool startWith(ServiceProcess &service, const QStringList &settings) {
    QStringList arguments;
    for (const QString &setting : settings)
        arguments << QStringLiteral("--set") << setting;
    return service.runToEnd(arguments) == 0 && service.start();
}

// The service keeping kitchen orders for 5 minutes, and a POS page on it.
bool startRetrying(ServiceProcess &service, PosClient &pos) {
    return startWith(service, {retryFiveMinutes}) && pos.open(ServiceProcess::gatewayPort);
}

quint16 freePort() {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost);
    return probe.serverPort(); // free again once the probe goes
}

// The order texts the printer received, one per connection that brought any.
QList<QByteArray> printed(const devsim::Printer &printer) {
    QList<QByteArray> jobs;
    for (const auto &c : printer.connections())
        if (!c.received.isEmpty())
            jobs << c.received;
    return jobs;
}

QString answerData(const QString &text) {
    return jsonObject(text).value("response").toObject().value("data").toString();
}

QStringList linesStartingWith(ServiceProcess &service, const QString &start) {
    QStringList found;
    for (const QString &line : service.stdoutLines())
        if (line.startsWith(start))
            found << line;
    return found;
}

QByteArray contentsOf(const QString &path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// A small disk for the service's state, filled up while it runs.
const qint64 smallDiskBytes = 512 * 1024;
const QString notRemoved =
    QStringLiteral("pending store: %1 could not be removed (database or disk is full): it "
                   "is not delivered again, and its removal is retried");

} // namespace

class NothingLostTest : public QObject {
    Q_OBJECT

    // A KIS terminal whose customer takes 2 s: the POS page has gone by the time it answers.
    void slowKis(devsim::ScriptedTerminal &kis) {
        QVERIFY(kis.listen(5000));
        kis.setScript(devsim::kisExchange(cp949::encode(approval).value(), 2000));
    }

    // The POS pays again, with a customer who does not keep the terminal waiting, and waits
    // for that answer. Held answers go out right after the handshake, before any frame is
    // read, so whatever else the POS was going to be given it has by then.
    void payAndWaitForTheProbeAnswer(devsim::ScriptedTerminal &kis, PosClient &pos, qsizetype answersBefore) {
        kis.setScript(devsim::kisExchange(cp949::encode(probeApproval).value(), 0));
        pos.send(terminalFrame("KIS", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return pos.texts.size() > answersBefore; }, 5000));
        QVERIFY(waitUntil([&] { return isProbeAnswer(pos.texts.last()); }, 5000));
    }

    static bool isProbeAnswer(const QString &text) {
        return jsonObject(text) == expectedAnswer(probeApproval, "KIS7430");
    }

    // A further order to the same printer: orders to one printer go out in the order they
    // came, so once it is printed, anything still queued before it has been too.
    static void orderAndWaitForItsPrint(PosClient &pos, const devsim::Printer &printer, quint16 port,
                                        qsizetype printedBefore) {
        pos.send(kitchenOrderFrame(QStringLiteral("PROBE\n"), port));
        QVERIFY(waitUntil([&] { return printed(printer).size() > printedBefore; }, 10000));
    }

    void payThenLeave(ServiceProcess &service) {
        PosClient leaving;
        QVERIFY(leaving.open(ServiceProcess::gatewayPort));
        leaving.send(terminalFrame("KIS", "\x02PAY\x03"));
        QVERIFY(service.waitForStdoutLine(recvFired, 3000));
        leaving.socket.close(); // the cashier reloads the page
        QVERIFY(waitUntil([&] { return leaving.disconnected; }, 3000));
    }

private slots:
    void init() { QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use"); }

    void answerThatFoundNoPosReachesTheNextPosOnce() {
        devsim::ScriptedTerminal kis;
        slowKis(kis);
        ServiceProcess service;
        QVERIFY(startWith(service, kisOnLoopback + QStringList{holdAnswers}));
        payThenLeave(service);
        QVERIFY(answerIsWaiting(service));

        PosClient reloaded;
        QVERIFY(reloaded.open(ServiceProcess::gatewayPort));
        QVERIFY(waitUntil([&] { return !reloaded.texts.isEmpty(); }, 3000));
        payAndWaitForTheProbeAnswer(kis, reloaded, 1);
        if (QTest::currentTestFailed())
            return;
        QCOMPARE(reloaded.texts.size(), 2); // the held answer once, then the probe's
        QCOMPARE(jsonObject(reloaded.texts.first()), expectedAnswer(approval, "KIS7430"));

        PosClient third;
        QVERIFY(third.open(ServiceProcess::gatewayPort));
        payAndWaitForTheProbeAnswer(kis, third, 0);
        if (QTest::currentTestFailed())
            return;
        QCOMPARE(third.texts.size(), 1); // its own answer, nothing held
        QCOMPARE(reloaded.texts.size(), 2);
        QCOMPARE(service.pendingLines(), QStringList{"nothing is waiting"});
        QCOMPARE(service.stderrLines(), QStringList());
    }

    void withoutTheSettingTheAnswerIsLostAsBefore() {
        devsim::ScriptedTerminal kis;
        slowKis(kis);
        ServiceProcess service;
        QVERIFY(startWith(service, kisOnLoopback));
        payThenLeave(service);
        QVERIFY(waitUntil([&] { return kis.closedCount() == 1; }, 5000)); // the answer came and went
        PosClient reloaded;
        QVERIFY(reloaded.open(ServiceProcess::gatewayPort));
        payAndWaitForTheProbeAnswer(kis, reloaded, 0);
        if (QTest::currentTestFailed())
            return;
        QCOMPARE(reloaded.texts.size(), 1); // its own answer only
        QVERIFY(!QFileInfo::exists(service.pendingStoreFile()));
    }

    void heldAnswerSurvivesSigkill() {
        devsim::ScriptedTerminal kis;
        slowKis(kis);
        ServiceProcess service;
        QVERIFY(startWith(service, kisOnLoopback + QStringList{holdAnswers}));
        payThenLeave(service);
        QVERIFY(answerIsWaiting(service));
        service.killHard();
        QVERIFY(service.start());
        PosClient afterRestart;
        QVERIFY(afterRestart.open(ServiceProcess::gatewayPort));
        QVERIFY(waitUntil([&] { return !afterRestart.texts.isEmpty(); }, 3000));
        payAndWaitForTheProbeAnswer(kis, afterRestart, 1);
        if (QTest::currentTestFailed())
            return;
        QCOMPARE(afterRestart.texts.size(), 2); // the held answer once, then the probe's
        QCOMPARE(jsonObject(afterRestart.texts.first()), expectedAnswer(approval, "KIS7430"));
    }

    void orderReachesAPrinterThatComesBackAfterThreeSeconds() {
        const quint16 port = freePort();
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startRetrying(service, pos));
        pos.send(kitchenOrderFrame(QStringLiteral("김치찌개 2\n"), port));
        QVERIFY(service.waitForStdoutLine(recvFired, 3000));
        keepRunningFor(3000);
        devsim::Printer printer;
        QVERIFY(printer.listen(port));
        const qint64 upAt = printer.nowMs();
        QVERIFY(waitUntil([&] { return printed(printer).size() == 1; }, 5000));
        QVERIFY2(printer.connections().first().lastByteAtMs - upAt <= 5000,
                 qPrintable(QString::number(printer.connections().first().lastByteAtMs - upAt)));
        orderAndWaitForItsPrint(pos, printer, port, 1);
        QCOMPARE(printed(printer),
                 (QList<QByteArray>{QByteArray::fromHex("b1e8c4a1c2eeb0b320320a"), "PROBE\n"}));
        QCOMPARE(service.stdoutLines(), (QStringList{recvFired, recvFired})); // retries are quiet
        QCOMPARE(service.pendingLines(), QStringList{"nothing is waiting"});
    }

    void threeOrdersArriveInTheOrderTheyCame() {
        const quint16 port = freePort();
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startRetrying(service, pos));
        for (const char *order : {"ORDER 1\n", "ORDER 2\n", "ORDER 3\n"})
            pos.send(kitchenOrderFrame(QString::fromLatin1(order), port));
        QVERIFY(service.waitForStdoutLineCount(3, 3000));
        keepRunningFor(2000);
        devsim::Printer printer;
        QVERIFY(printer.listen(port));
        QVERIFY(waitUntil([&] { return printed(printer).size() == 3; }, 10000));
        orderAndWaitForItsPrint(pos, printer, port, 3);
        QCOMPARE(printed(printer), (QList<QByteArray>{"ORDER 1\n", "ORDER 2\n", "ORDER 3\n", "PROBE\n"}));
    }

    void orderKeptAcrossSigkillIsPrintedOnceAfterTheRestart() {
        const quint16 port = freePort();
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startRetrying(service, pos));
        pos.send(kitchenOrderFrame(QStringLiteral("불고기 1\n"), port));
        QVERIFY(waitUntil(
            [&] { return service.pendingLines().join(u'\n').contains("kitchen order waiting"); }, 5000));
        service.killHard();
        devsim::Printer printer;
        QVERIFY(printer.listen(port));
        QElapsedTimer sinceStart;
        sinceStart.start();
        QVERIFY(service.start());
        QVERIFY(waitUntil([&] { return printed(printer).size() == 1; }, 5000));
        QVERIFY2(sinceStart.elapsed() <= 2500, qPrintable(QString::number(sinceStart.elapsed())));
        PosClient afterRestart;
        QVERIFY(afterRestart.open(ServiceProcess::gatewayPort));
        orderAndWaitForItsPrint(afterRestart, printer, port, 1);
        QCOMPARE(printed(printer),
                 (QList<QByteArray>{cp949::encode(QStringLiteral("불고기 1\n")).value(), "PROBE\n"}));
    }

    void storeIsPrivateToTheUser() {
        const quint16 port = freePort();
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startRetrying(service, pos));
        pos.send(kitchenOrderFrame(QStringLiteral("A\n"), port));
        QVERIFY(waitUntil([&] { return QFileInfo::exists(service.pendingStoreFile()); }, 3000));
        struct stat info {};
        QCOMPARE(stat(QFile::encodeName(service.pendingStoreFile()).constData(), &info), 0);
        QCOMPARE(info.st_mode & 0777, 0600u);
    }

    void storeThatCannotBeOpenedIsOneLineAndServiceGoesOnAsBefore() {
        devsim::Printer printer;
        QVERIFY(printer.listen());
        ServiceProcess service;
        QVERIFY(QDir().mkpath(service.pendingStoreFile())); // a folder where the file should be
        service.set("HOLD_UNDELIVERED_ANSWERS", "true");
        PosClient pos;
        QVERIFY(startRetrying(service, pos));
        QVERIFY(service.waitForStdoutLineCount(1, 3000));
        pos.send(kitchenOrderFrame(QStringLiteral("A\n"), printer.port()));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 1; }, 5000));
        QCOMPARE(printer.connections().first().received, QByteArray("A\n"));
        const QStringList lines = service.stdoutLines();
        QCOMPARE(lines.size(), 2);
        QVERIFY2(lines[0].contains(service.pendingStoreFile()) && lines[0].contains("cannot be opened"),
                 qPrintable(lines[0]));
        QCOMPARE(lines[1], recvFired);
        QVERIFY(service.isRunning());
    }

    void invalidRetrySettingIsNamedAtStartAndOrdersAreNotKept() {
        const quint16 port = freePort();
        ServiceProcess service;
        service.set("KITCHEN_RETRY_MINUTES", "often");
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        QVERIFY(service.waitForStdoutLineCount(1, 3000));
        QVERIFY2(service.stdoutLines().first().contains("KITCHEN_RETRY_MINUTES=often"),
                 qPrintable(service.stdoutLines().first()));
        pos.send(kitchenOrderFrame(QStringLiteral("A\n"), port));
        QVERIFY(service.waitForStdoutLineCount(3, 3000)); // the marker and today's one-line error
        QVERIFY(service.stdoutLines()[2].contains(QStringLiteral("127.0.0.1:%1").arg(port)));
        QVERIFY(!QFileInfo::exists(service.pendingStoreFile()));
    }

    // A terminal (or anyone on the shop network) answering with no POS to take it: the
    // newest 100 are kept, each one over that drops the oldest with one line.
    void aHundredAndTwentyAnswersWithNoPosLeaveTheNewestHundred() {
        const QStringList addresses = localAddresses();
        QVERIFY2(!addresses.isEmpty(), "this machine has no non-loopback interface up");
        ServiceProcess service;
        QVERIFY(startWith(service, kisOnLoopback + QStringList{holdAnswers}));
        // As a KICC terminal delivers one: a connection of its own to the answer listener.
        const auto answerFromTheNetwork = [&](int i) {
            devsim::AnswerCall call{
                QHostAddress(addresses.first()), devsim::VendorPort::kicc,
                devsim::listenerFrame(QStringLiteral("ANSWER %1").arg(i, 3, 10, QChar(u'0')).toLatin1())};
            return waitUntil([&] { return call.isFinished(); }, 5000) && call.isSent();
        };
        // The listener opens with the TCP page, after the gateway: a refused call reached no one.
        QVERIFY(waitUntil([&] { return answerFromTheNetwork(1); }, 5000));
        for (int i = 2; i <= 120; ++i)
            QVERIFY2(answerFromTheNetwork(i), qPrintable(QString::number(i)));
        const QString dropped =
            QStringLiteral("held terminal answers are kept 100 at most: the oldest, waiting ");
        QVERIFY2(waitUntil([&] { return linesStartingWith(service, dropped).size() == 20; }, 10000),
                 qPrintable(service.stdoutLines().join(u'\n')));
        for (const QString &line : linesStartingWith(service, dropped))
            QVERIFY2(line.endsWith(QLatin1String(" s (83 bytes), was dropped unread")) &&
                         !line.contains("ANSWER"),
                     qPrintable(line));
        QCOMPARE(service.pendingLines()
                     .filter(QRegularExpression(QStringLiteral("^answer waiting .*, 83 bytes$")))
                     .size(),
                 100);

        PosClient pos;
        QVERIFY(pos.open(ServiceProcess::gatewayPort));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 100; }, 10000));
        // One more answer now goes behind them: had any older one been left, it would come first.
        QVERIFY(answerFromTheNetwork(121));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 101; }, 5000));
        QStringList expected;
        for (int i = 21; i <= 121; ++i)
            expected << QStringLiteral("ANSWER %1").arg(i, 3, 10, QChar(u'0'));
        QStringList received;
        for (const QString &text : std::as_const(pos.texts))
            received << answerData(text);
        QCOMPARE(received, expected);
        QCOMPARE(linesStartingWith(service, dropped).size(), 20);
        QCOMPARE(service.pendingLines(), QStringList{"nothing is waiting"});
    }

    // The disk fills after the answer is kept: the first POS gets it, its removal fails, and
    // a second POS gets nothing but the answer to its own payment.
    void heldAnswerReachesThePosOnceWhenTheDiskIsFull() {
        QVERIFY2(geteuid() == 0, "this test mounts a small tmpfs and needs root (CI runs as root)");
        devsim::ScriptedTerminal kis;
        slowKis(kis);
        ServiceProcess service;
        SmallDisk disk(service.stateHome(), smallDiskBytes);
        QVERIFY2(disk.isMounted(), qPrintable(disk.error()));
        QVERIFY(startWith(service, kisOnLoopback + QStringList{holdAnswers}));
        payThenLeave(service);
        QVERIFY(answerIsWaiting(service));
        QVERIFY2(disk.fill(), qPrintable(disk.error()));

        {
            PosClient reloaded;
            QVERIFY(reloaded.open(ServiceProcess::gatewayPort));
            QVERIFY(waitUntil([&] { return !reloaded.texts.isEmpty(); }, 3000));
            QCOMPARE(jsonObject(reloaded.texts.first()), expectedAnswer(approval, "KIS7430"));
            reloaded.socket.close();
            QVERIFY(waitUntil([&] { return reloaded.disconnected; }, 3000));
        }

        const QString probeApproval = QStringLiteral("승인 완료 9999");
        kis.setScript(devsim::kisExchange(cp949::encode(probeApproval).value(), 0));
        PosClient second;
        QVERIFY(second.open(ServiceProcess::gatewayPort));
        second.send(terminalFrame("KIS", "\x02PAY\x03"));
        // Held answers go out right after the handshake, before any frame is read: the answer
        // to this payment comes after anything held would have.
        QVERIFY(waitUntil([&] { return !second.texts.isEmpty(); }, 5000));
        keepRunningFor(300);
        QCOMPARE(second.texts.size(), 1);
        QCOMPARE(jsonObject(second.texts.first()), expectedAnswer(probeApproval, "KIS7430"));
        QCOMPARE(linesStartingWith(service, QStringLiteral("pending store: ")),
                 QStringList{notRemoved.arg("a delivered terminal answer")});

        // With room again its removal goes through, and nothing is left to deliver.
        QVERIFY(disk.makeRoom());
        QVERIFY(waitUntil([&] { return service.pendingLines() == QStringList{"nothing is waiting"}; }, 8000));
        QCOMPARE(service.stderrLines(), QStringList());
    }

    // Order A is kept, then the disk fills: order B cannot be kept and says so, yet both are
    // printed once when the printer comes back, A's removal failing. Once there is room its
    // removal goes through, and a restart prints nothing again.
    void ordersArePrintedOnceWhenTheDiskIsFullAndNotAgainAfterARestart() {
        QVERIFY2(geteuid() == 0, "this test mounts a small tmpfs and needs root (CI runs as root)");
        const quint16 port = freePort();
        ServiceProcess service;
        SmallDisk disk(service.stateHome(), smallDiskBytes);
        QVERIFY2(disk.isMounted(), qPrintable(disk.error()));
        PosClient pos;
        QVERIFY(startRetrying(service, pos));
        pos.send(kitchenOrderFrame(QStringLiteral("ORDER A\n"), port));
        QVERIFY(waitUntil(
            [&] { return service.pendingLines().join(u'\n').contains("kitchen order waiting"); }, 5000));
        QVERIFY2(disk.fill(), qPrintable(disk.error()));
        pos.send(kitchenOrderFrame(QStringLiteral("ORDER B\n"), port));
        const QString notKept =
            QStringLiteral("kitchen printer 127.0.0.1:%1: the order could not be kept (database or "
                           "disk is full); it is tried all the same, but lost if the service "
                           "stops first")
                .arg(port);
        QVERIFY2(service.waitForStdoutLine(notKept, 5000), qPrintable(service.stdoutLines().join(u'\n')));
        keepRunningFor(1500); // B's one attempt while the printer is off

        devsim::Printer printer;
        QVERIFY(printer.listen(port));
        QVERIFY(waitUntil([&] { return printed(printer).size() == 2; }, 40000));
        keepRunningFor(2500);
        QCOMPARE(printed(printer), (QList<QByteArray>{"ORDER A\n", "ORDER B\n"}));
        QCOMPARE(service.stdoutLines().filter("could not be kept").size(), 1);
        QCOMPARE(linesStartingWith(service, QStringLiteral("pending store: ")),
                 QStringList{notRemoved.arg("a printed kitchen order")});

        QVERIFY(disk.makeRoom());
        QVERIFY(waitUntil([&] { return service.pendingLines() == QStringList{"nothing is waiting"}; }, 8000));
        service.killHard();
        QVERIFY(service.start());
        PosClient afterRestart;
        QVERIFY(afterRestart.open(ServiceProcess::gatewayPort));
        // Anything still kept would go out at start, ahead of this one on the same printer.
        afterRestart.send(kitchenOrderFrame(QStringLiteral("ORDER C\n"), port));
        QVERIFY(waitUntil([&] { return printed(printer).size() >= 3; }, 10000));
        orderAndWaitForItsPrint(afterRestart, printer, port, 3);
        QCOMPARE(printed(printer), (QList<QByteArray>{"ORDER A\n", "ORDER B\n", "ORDER C\n", "PROBE\n"}));
    }

    void damagedStoreIsSetAsideAndTheNextOrderIsKept_data() {
        QTest::addColumn<bool>("garbage");
        QTest::addColumn<QString>("reason");
        QTest::newRow("garbage") << true << "file is not a database";
        QTest::newRow("foreign table layout") << false << "its tables are not the ones Terano Counter writes";
    }
    void damagedStoreIsSetAsideAndTheNextOrderIsKept() {
        QFETCH(bool, garbage);
        QFETCH(QString, reason);
        ServiceProcess service;
        const QString store = service.pendingStoreFile();
        QVERIFY(QDir().mkpath(QFileInfo(store).absolutePath()));
        if (garbage) {
            QFile file(store);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(QByteArray("PK\x03\x04 a zip that was copied over the store\n").repeated(200));
        } else {
            QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("foreign"));
            db.setDatabaseName(store);
            QVERIFY(db.open());
            QSqlQuery query(db);
            for (const char *statement :
                 {"CREATE TABLE answers (id INTEGER PRIMARY KEY, text TEXT, received TEXT)",
                  "CREATE TABLE orders (id INTEGER PRIMARY KEY, ticket TEXT)",
                  "INSERT INTO orders (ticket) VALUES ('SOMEONE ELSE''S ORDER')"})
                QVERIFY2(query.exec(QString::fromLatin1(statement)), qPrintable(query.lastError().text()));
        }
        QSqlDatabase::removeDatabase(QStringLiteral("foreign"));
        const QByteArray before = contentsOf(store);

        // Looking says why it cannot be read, and leaves the file be.
        QByteArray out;
        QByteArray err;
        QCOMPARE(service.runToEnd({"--pending"}, &out, &err), 1);
        QCOMPARE(out, QByteArray());
        QCOMPARE(QString::fromUtf8(err),
                 QStringLiteral("teranocounter: %1 cannot be read: %2; the service sets it aside "
                                "and starts a fresh store when it next opens it\n")
                     .arg(store, reason));
        QCOMPARE(contentsOf(store), before);

        const quint16 port = freePort();
        PosClient pos;
        QVERIFY(startRetrying(service, pos));
        QVERIFY(service.waitForStdoutLineCount(1, 3000));
        const QRegularExpression setAside(
            QStringLiteral(
                "^pending store %1 cannot be used \\(%2\\): set aside as (%1\\.corrupt-\\d{8}T\\d{6}Z), a "
                "fresh store is used$")
                .arg(QRegularExpression::escape(store), QRegularExpression::escape(reason)));
        const QRegularExpressionMatch match = setAside.match(service.stdoutLines().first());
        QVERIFY2(match.hasMatch(), qPrintable(service.stdoutLines().first()));
        QCOMPARE(contentsOf(match.captured(1)), before);

        pos.send(kitchenOrderFrame(QStringLiteral("NEXT ORDER\n"), port));
        QVERIFY(waitUntil(
            [&] { return service.pendingLines().join(u'\n').contains("kitchen order waiting"); }, 5000));
        const QStringList listed = service.pendingLines();
        QCOMPARE(listed.size(), 2);
        QVERIFY2(listed[0].startsWith(QStringLiteral("kitchen order waiting ")) &&
                     listed[0].endsWith(QStringLiteral(", printer 127.0.0.1:%1, 11 bytes").arg(port)),
                 qPrintable(listed[0]));
        QCOMPARE(listed[1], QStringLiteral("set aside by the service, not read: ") + match.captured(1));
        devsim::Printer printer;
        QVERIFY(printer.listen(port));
        QVERIFY(waitUntil([&] { return printed(printer).size() == 1; }, 10000));
        orderAndWaitForItsPrint(pos, printer, port, 1);
        QCOMPARE(printed(printer), (QList<QByteArray>{"NEXT ORDER\n", "PROBE\n"}));
        QCOMPARE(service.stdoutLines().size(), 3); // the set-aside line and the two orders' markers
        QCOMPARE(service.stderrLines(), QStringList());
    }

    void pendingListsWhatWaitsWithoutItsContent() {
        devsim::ScriptedTerminal kis;
        slowKis(kis);
        const quint16 port = freePort();
        ServiceProcess service;
        QVERIFY(startWith(service, kisOnLoopback + QStringList{holdAnswers, retryFiveMinutes}));
        {
            PosClient kitchen;
            QVERIFY(kitchen.open(ServiceProcess::gatewayPort));
            kitchen.send(kitchenOrderFrame(QStringLiteral("SECRET SOUP\n"), port));
            QVERIFY(service.waitForStdoutLine(recvFired, 3000));
        }
        payThenLeave(service);
        QVERIFY(answerIsWaiting(service));
        const QStringList lines = service.pendingLines();
        QCOMPARE(lines.size(), 2);
        QVERIFY2(lines[0].startsWith("answer waiting ") && lines[0].endsWith(" bytes"), qPrintable(lines[0]));
        QVERIFY2(lines[1].startsWith("kitchen order waiting ") &&
                     lines[1].contains(QStringLiteral("printer 127.0.0.1:%1").arg(port)),
                 qPrintable(lines[1]));
        const QString all = lines.join(u'\n');
        QVERIFY(!all.contains("SECRET") && !all.contains(approval) && !all.contains("KIS7430"));

        QByteArray out;
        QCOMPARE(service.runToEnd({"--pending", "--clear"}, &out), 0);
        QVERIFY(out.contains("removed 1 answers and 1 kitchen orders"));
        QCOMPARE(service.pendingLines(), QStringList{"nothing is waiting"});
    }
};

QTEST_GUILESS_MAIN(NothingLostTest)
#include "tst_nothinglost.moc"
