// The real `teranocounter --headless` with a card terminal on a serial line, seen from
// outside: a POS on the gateway, a pseudo-terminal as the terminal (the service finds it
// through TERANOCOUNTER_SERIAL_PORTS), the settings file, and what the process costs
// while it waits for a terminal that is not plugged in.
#include "devsim/pseudoterminal.h"
#include "posclient.h"
#include "processusage.h"
#include "sanitizers.h"
#include "servicefixture.h"
#include "serviceprocess.h"
#include "wait.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>
#include <unistd.h>

namespace {

// Whether process `pid` has `device` open.
bool holdsOpen(qint64 pid, const QString &device) {
    const QString fdDir = QStringLiteral("/proc/%1/fd").arg(pid);
    for (const QString &fd : QDir(fdDir).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot))
        if (QFile::symLinkTarget(fdDir + u'/' + fd) == device)
            return true;
    return false;
}

struct Usage {
    double cpuSeconds = 0;
    qint64 wakeups = 0;     // every thread's voluntary context switches: each sleep ends in a wake-up
    qint64 preemptions = 0; // involuntary ones, which depend on how busy the machine is
    qint64 readCalls = 0;   // read system calls: a loop on a dead descriptor makes them by the thousand
};

Usage usageOf(qint64 pid) {
    Usage usage;
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (stat.open(QIODevice::ReadOnly)) {
        const QByteArray line = stat.readAll();
        // Fields after the command name, which is in parentheses and may hold blanks.
        const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
        const double ticks = static_cast<double>(::sysconf(_SC_CLK_TCK));
        usage.cpuSeconds = (fields.value(11).toLongLong() + fields.value(12).toLongLong()) / ticks;
    }
    QFile io(QStringLiteral("/proc/%1/io").arg(pid));
    if (io.open(QIODevice::ReadOnly))
        for (const QByteArray &line : io.readAll().split('\n'))
            if (line.startsWith("syscr:"))
                usage.readCalls = line.mid(line.indexOf(':') + 1).trimmed().toLongLong();
    const QString tasks = QStringLiteral("/proc/%1/task").arg(pid);
    for (const QString &task : QDir(tasks).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile status(tasks + u'/' + task + QStringLiteral("/status"));
        if (!status.open(QIODevice::ReadOnly))
            continue;
        for (const QByteArray &line : status.readAll().split('\n'))
            if (line.startsWith("voluntary_ctxt_switches:"))
                usage.wakeups += line.mid(line.indexOf(':') + 1).trimmed().toLongLong();
            else if (line.startsWith("nonvoluntary_ctxt_switches:"))
                usage.preemptions += line.mid(line.indexOf(':') + 1).trimmed().toLongLong();
    }
    return usage;
}

QString frameWithData(const QString &requestType, const QByteArray &data) {
    QStringList values;
    for (const char c : data)
        values << QString::number(static_cast<unsigned char>(c));
    return QStringLiteral(R"({"requesttype":"%1","data":[%2]})").arg(requestType, values.join(u','));
}

QByteArray ts132n(const QByteArray &payload) {
    return QByteArray::fromHex("02") + "HDR1" + payload + "T2" + QByteArray::fromHex("03");
}

} // namespace

class SerialServiceTest : public QObject {
    Q_OBJECT
    std::unique_ptr<QTemporaryDir> dir;
    QString linkPath;

    // A service with USB active and the terminal's link stored as its port.
    void startWithUsb(ServiceProcess &service, PosClient &pos, const QString &deviceType = {}) {
        service.set(QStringLiteral("MAIN_INTERFACE"), QStringLiteral("USB"));
        service.set(QStringLiteral("USB_PORT"), linkPath);
        if (!deviceType.isEmpty())
            service.set(QStringLiteral("SERIAL_DEVICE_TYPE"), deviceType);
        QVERIFY(startAndConnect(service, pos));
    }

    // Measures the service over `ms` while nothing happens.
    Usage idleUsage(const ServiceProcess &service, int ms) {
        const Usage before = usageOf(service.pid());
        keepRunningFor(ms);
        const Usage after = usageOf(service.pid());
        return {after.cpuSeconds - before.cpuSeconds, after.wakeups - before.wakeups,
                after.preemptions - before.preemptions, after.readCalls - before.readCalls};
    }

    void expectIdle(const ServiceProcess &service, const char *when) {
        constexpr int windowMs = 5000;
        const Usage idle = idleUsage(service, windowMs);
        const double cpuPercent = 100.0 * idle.cpuSeconds / (windowMs / 1000.0);
        const double wakeupsPerSecond = idle.wakeups / (windowMs / 1000.0);
        const double readsPerSecond = idle.readCalls / (windowMs / 1000.0);
        // The CPU share depends on the machine (bench/ measures it); what the service itself
        // does, sleeping and reading, does not.
        qInfo("%s: %.2f %% CPU, %.1f wake-ups/s, %.1f reads/s (%lld preemptions)", when, cpuPercent,
              wakeupsPerSecond, readsPerSecond, idle.preemptions);
        QVERIFY2(wakeupsPerSecond <= 1.0, qPrintable(QString::number(wakeupsPerSecond)));
        // A rescan reads some sysfs files; a loop on a dead descriptor reads by the hundred thousand.
        QVERIFY2(readsPerSecond <= 1000.0, qPrintable(QString::number(readsPerSecond)));
    }

private slots:
    void init() {
        QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use");
        dir = std::make_unique<QTemporaryDir>();
        linkPath = dir->filePath(QStringLiteral("card-terminal"));
        qputenv("TERANOCOUNTER_SERIAL_PORTS", QFile::encodeName(linkPath));
    }
    void cleanup() { qunsetenv("TERANOCOUNTER_SERIAL_PORTS"); }

    void firstStartWritesTheSerialDefaultsButNoInterface() {
        ServiceProcess service;
        QVERIFY(service.start());
        // The gateway is up before the USB page has loaded: wait for its last write.
        QVERIFY(waitUntil(
            [&] {
                QFile file(service.settingsFile());
                return file.open(QIODevice::ReadOnly) && file.readAll().contains("SERIAL_DEVICE_TYPE");
            },
            5000));
        QByteArray out;
        QCOMPARE(service.runToEnd({QStringLiteral("--settings")}, &out), 0);
        // The serial defaults beside the TCP page's own vendor default, and no interface.
        QCOMPARE(QString::fromUtf8(out).split(u'\n', Qt::SkipEmptyParts),
                 (QStringList{"BAUD_RATE=9600", "SERIAL_DEVICE_TYPE=TS-132N", "TCP_DEVICE=KICC"}));
        QVERIFY(service.isRunning());
        QCOMPARE(service.stdoutLines(), QStringList());
        QCOMPARE(service.stderrLines(), QStringList());
    }

    void requestDataGoesDownTheLineByteForByte() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(linkPath);
        QVERIFY(link.plug(terminal));
        ServiceProcess service;
        PosClient pos;
        startWithUsb(service, pos);
        QVERIFY(waitUntil([&] { return holdsOpen(service.pid(), terminal.slavePath()); }, 2000));

        QByteArray all;
        for (int i = 0; i < 256; ++i)
            all.append(static_cast<char>(i));
        pos.send(frameWithData(QStringLiteral("payment"), all));
        QVERIFY(terminal.waitForReceived(256, 3000));
        QCOMPARE(terminal.received(), all);

        terminal.clearReceived();
        pos.send(frameWithData(QStringLiteral("print"), QStringLiteral("한글 영수증\n").toUtf8()));
        const QByteArray cp949 = QByteArray::fromHex("c7d1b1db20bfb5bcf6c1f50a");
        QVERIFY(terminal.waitForReceived(cp949.size(), 3000));
        keepRunningFor(200);
        QCOMPARE(terminal.received(), cp949);
        QCOMPARE(service.stdoutLines(), (QStringList{ServiceProcess::recvFired, ServiceProcess::recvFired}));
        QCOMPARE(service.stderrLines(), QStringList());
    }

    void answerReachesThePosInOneChunkOrThree() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(linkPath);
        QVERIFY(link.plug(terminal));
        ServiceProcess service;
        PosClient pos;
        startWithUsb(service, pos);
        QVERIFY(waitUntil([&] { return holdsOpen(service.pid(), terminal.slavePath()); }, 2000));
        pos.send(frameWithData(QStringLiteral("payment"), "PAY"));
        QVERIFY(terminal.waitForReceived(3, 3000));

        const QString expected =
            QStringLiteral(R"({"response":{"data":"ABC"},"devicetype":"CAT","devicename":"TS-132N"})");
        const QByteArray answer = ts132n("ABC");
        terminal.write(answer);
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 3000));
        QCOMPARE(pos.texts[0], expected);

        terminal.write(answer.left(3));
        terminal.write(answer.mid(3, 5));
        terminal.write(answer.mid(8));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 2; }, 3000));
        QCOMPARE(pos.texts[1], expected);
        keepRunningFor(200);
        QCOMPARE(pos.texts.size(), 2);
    }

    void kis7430AnswerInKorean() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(linkPath);
        QVERIFY(link.plug(terminal));
        ServiceProcess service;
        PosClient pos;
        startWithUsb(service, pos, QStringLiteral("KIS-7430"));
        QVERIFY(waitUntil([&] { return holdsOpen(service.pid(), terminal.slavePath()); }, 2000));
        pos.send(frameWithData(QStringLiteral("payment"), "PAY"));
        QVERIFY(terminal.waitForReceived(3, 3000));
        terminal.write(QByteArray::fromHex("02") + "HD" + QByteArray::fromHex("bdc2c0ce2030303031") +
                       QByteArray::fromHex("03"));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 3000));
        QCOMPARE(pos.texts[0],
                 QStringLiteral(
                     R"({"response":{"data":"승인 0001"},"devicetype":"CAT","devicename":"KIS-7430"})"));
    }

    void storedPortAbsentIsOpenedWhenPluggedAndAgainAfterAReplug() {
        ServiceProcess service;
        PosClient pos;
        startWithUsb(service, pos);
        expectIdle(service, "waiting for the terminal");

        // Plugged in.
        auto terminal = std::make_unique<devsim::PseudoTerminal>();
        devsim::PortLink link(linkPath);
        QElapsedTimer clock;
        clock.start();
        QVERIFY(link.plug(*terminal));
        QVERIFY(waitUntil([&] { return holdsOpen(service.pid(), terminal->slavePath()); }, 2000));
        qInfo("opened %lld ms after the plug", clock.elapsed());
        pos.send(frameWithData(QStringLiteral("payment"), "ONE"));
        QVERIFY(terminal->waitForReceived(3, 2000));
        QCOMPARE(terminal->received(), QByteArray("ONE"));

        // Pulled out: the terminal and its name go.
        const QString firstDevice = terminal->slavePath();
        terminal.reset();
        link.unplug();
        QVERIFY(waitUntil([&] { return !holdsOpen(service.pid(), firstDevice); }, 2000));
        expectIdle(service, "after the unplug");

        // Back again, as a new device under the same name.
        terminal = std::make_unique<devsim::PseudoTerminal>();
        clock.restart();
        QVERIFY(link.plug(*terminal));
        QVERIFY(waitUntil([&] { return holdsOpen(service.pid(), terminal->slavePath()); }, 2000));
        qInfo("reopened %lld ms after the replug", clock.elapsed());
        pos.send(frameWithData(QStringLiteral("payment"), "TWO"));
        QVERIFY(terminal->waitForReceived(3, 2000));
        QCOMPARE(terminal->received(), QByteArray("TWO"));
        QCOMPARE(service.stderrLines(), QStringList());
        QVERIFY(service.isRunning());
    }

    void terminalThatVanishesUnderAnOpenPortNeitherSpinsNorIsMissedOnReplug() {
        auto terminal = std::make_unique<devsim::PseudoTerminal>();
        devsim::PortLink link(linkPath);
        QVERIFY(link.plug(*terminal));
        ServiceProcess service;
        PosClient pos;
        startWithUsb(service, pos);
        QVERIFY(waitUntil([&] { return holdsOpen(service.pid(), terminal->slavePath()); }, 2000));

        // The cable goes in the middle of an answer; the name stays behind, dead.
        pos.send(frameWithData(QStringLiteral("payment"), "PAY"));
        QVERIFY(terminal->waitForReceived(3, 2000));
        terminal->write(ts132n("OLD").left(6));
        keepRunningFor(200);
        const QString firstDevice = terminal->slavePath();
        terminal.reset();
        QVERIFY(waitUntil([&] { return !holdsOpen(service.pid(), firstDevice); }, 2000));
        expectIdle(service, "with a dead link");

        terminal = std::make_unique<devsim::PseudoTerminal>();
        QElapsedTimer clock;
        clock.start();
        QVERIFY(link.plug(*terminal));
        QVERIFY(waitUntil([&] { return holdsOpen(service.pid(), terminal->slavePath()); }, 2000));
        qInfo("reopened %lld ms after the replug", clock.elapsed());
        terminal->write(ts132n("NEW"));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 3000));
        QCOMPARE(pos.texts[0],
                 QStringLiteral(R"({"response":{"data":"NEW"},"devicetype":"CAT","devicename":"TS-132N"})"));
        keepRunningFor(200);
        QCOMPARE(pos.texts.size(), 1); // the half answer never reached the POS
        QCOMPARE(service.stderrLines(), QStringList());
    }

    void aLineThatBreaksIsNotAnUnplugAndKeepsItsRate() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(linkPath);
        QVERIFY(link.plug(terminal));
        ServiceProcess service;
        service.set(QStringLiteral("BAUD_RATE"), QStringLiteral("38400"));
        PosClient pos;
        startWithUsb(service, pos, QStringLiteral("TS-132N"));
        QVERIFY(waitUntil([&] { return holdsOpen(service.pid(), terminal.slavePath()); }, 2000));
        QVERIFY(waitUntil([&] { return terminal.outputSpeed() == speed_t(B38400); }, 2000));

        if (!terminal.hangUpLine())
            QSKIP("hanging up a line needs CAP_SYS_ADMIN");
        // The service's descriptor is dead now; the device is still there. A payment goes
        // every 300 ms until one reaches the terminal.
        QVERIFY(waitUntil(
            [&] {
                pos.send(frameWithData(QStringLiteral("payment"), "PAY"));
                return terminal.waitForReceived(3, 300);
            },
            5000));
        QVERIFY(terminal.received().startsWith("PAY"));
        QCOMPARE(terminal.outputSpeed(), speed_t(B38400)); // the rate chosen, not 9600
        terminal.write(ts132n("OK 38400"));
        QVERIFY(waitUntil([&] { return !pos.texts.isEmpty(); }, 3000));
        QCOMPARE(
            pos.texts.first(),
            QStringLiteral(R"({"response":{"data":"OK 38400"},"devicetype":"CAT","devicename":"TS-132N"})"));
        QVERIFY(service.isRunning());
        QCOMPARE(service.stderrLines(), QStringList());
    }

    // A line that sends without end (a broken adapter, a terminal stuck mid-transmit) costs
    // the service its 64 KiB answer buffer at most, and the next real answer gets through.
    void aFloodWithoutAnEndByteDoesNotGrowTheService() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(linkPath);
        QVERIFY(link.plug(terminal));
        ServiceProcess service;
#if defined(TESTS_UNDER_ADDRESS_SANITIZER)
        // AddressSanitizer keeps freed memory aside (256 MB by default) to catch a use after
        // free: every chunk the line delivers would stay resident. Freed memory is reused at
        // once here, as with the ordinary allocator.
        service.extraEnvironment.insert(
            QStringLiteral("ASAN_OPTIONS"),
            qEnvironmentVariable("ASAN_OPTIONS") +
                QStringLiteral(":quarantine_size_mb=0:thread_local_quarantine_size_kb=0"));
#endif
        PosClient pos;
        startWithUsb(service, pos, QStringLiteral("TS-132N"));
        QVERIFY(waitUntil([&] { return holdsOpen(service.pid(), terminal.slavePath()); }, 2000));
        pos.send(frameWithData(QStringLiteral("payment"), "PAY"));
        QVERIFY(terminal.waitForReceived(3, 3000));
        terminal.write(ts132n("BEFORE"));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 3000));

        const qint64 residentBefore = ProcessUsage::residentKiB(service.pid());
        const qint64 readBefore = ProcessUsage::bytesRead(service.pid());
        constexpr qsizetype flood = 32 * 1024 * 1024;
        const QByteArray block(1024 * 1024, 'x');
        for (qsizetype sent = 0; sent < flood; sent += block.size())
            QVERIFY(terminal.writeAll(block, 30000));
        // Every byte of the flood has been read before the answer goes, so that the answer
        // starts a chunk of its own.
        QVERIFY(
            waitUntil([&] { return ProcessUsage::bytesRead(service.pid()) - readBefore >= flood; }, 30000));
        const qint64 residentAfter = ProcessUsage::residentKiB(service.pid());
        qInfo("resident memory %lld KiB before 32 MiB without an end byte, %lld KiB after", residentBefore,
              residentAfter);
        QVERIFY2(residentAfter - residentBefore < 1024 + 64,
                 qPrintable(QStringLiteral("grew by %1 KiB").arg(residentAfter - residentBefore)));

        terminal.write(ts132n("AFTER"));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 2; }, 3000));
        QCOMPARE(
            pos.texts[1],
            QStringLiteral(R"({"response":{"data":"AFTER"},"devicetype":"CAT","devicename":"TS-132N"})"));
        QVERIFY(service.stdoutLines().contains("serial answer discarded: more than 65536 bytes without an "
                                               "end of text; waiting for the next start of "
                                               "text"));
        QCOMPARE(service.stdoutLines().filter("serial answer discarded").size(), 1);
        QVERIFY(service.isRunning());
        QCOMPARE(service.stderrLines(), QStringList());
    }

    void printThatIsNotUtf8StopsTheServiceWhenAPortIsSet_data() {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<QString>("reason");
        QTest::newRow("not UTF-8") << QByteArray("\xff\xfe") << "UTF-8";
        QTest::newRow("cut inside its last character")
            << QStringLiteral("김치찌개").toUtf8().chopped(1) << "UTF-8";
        QTest::newRow("emoji") << QStringLiteral("😀").toUtf8() << "949";
    }
    void printThatIsNotUtf8StopsTheServiceWhenAPortIsSet() {
        QFETCH(QByteArray, data);
        QFETCH(QString, reason);
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(linkPath);
        QVERIFY(link.plug(terminal));
        ServiceProcess service;
        PosClient pos;
        startWithUsb(service, pos);
        QVERIFY(waitUntil([&] { return holdsOpen(service.pid(), terminal.slavePath()); }, 2000));
        pos.send(frameWithData(QStringLiteral("print"), data));
        QVERIFY2(service.waitForExit(5000), "the service kept running");
        QVERIFY(service.exitCode() != 0);
        const QStringList err = service.stderrLines();
        QCOMPARE(err.size(), 1);
        QVERIFY2(err[0].startsWith(QStringLiteral("fatal: ")) && err[0].contains(reason), qPrintable(err[0]));
        QCOMPARE(terminal.received(), QByteArray());
        QVERIFY(pos.texts.isEmpty());
    }
};

QTEST_GUILESS_MAIN(SerialServiceTest)
#include "tst_serialservice.moc"
