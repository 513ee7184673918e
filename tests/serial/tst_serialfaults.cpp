// Faults on the serial line of the real `teranocounter --headless`: a terminal pulled out
// in the middle of its answer and plugged back, and a terminal that floods the line with
// bytes that never start or end an answer. The terminal is a pseudo-terminal behind a
// symlink listed in TERANOCOUNTER_SERIAL_PORTS; every case ends with the service still
// running and serving the next POS request.
#include "devsim/pseudoterminal.h"
#include "posclient.h"
#include "processusage.h"
#include "servicefixture.h"
#include "serviceprocess.h"
#include "terminalframes.h"
#include "wait.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {

constexpr qsizetype MiB = 1024 * 1024;

bool holdsOpen(qint64 pid, const QString &device) {
    const QString fdDir = QStringLiteral("/proc/%1/fd").arg(pid);
    for (const QString &fd : QDir(fdDir).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot))
        if (QFile::symLinkTarget(fdDir + u'/' + fd) == device)
            return true;
    return false;
}

QString payment(const QByteArray &data) {
    QStringList values;
    for (const char c : data)
        values << QString::number(static_cast<unsigned char>(c));
    return QStringLiteral(R"({"requesttype":"payment","data":[%1]})").arg(values.join(u','));
}

// A TS-132N answer: STX, 4 header bytes, the text, 2 trailer bytes, ETX.
QByteArray ts132n(const QByteArray &text) {
    return QByteArray::fromHex("02") + "HDR1" + text + "T2" + QByteArray::fromHex("03");
}

QString answerFor(const QString &text) {
    return QStringLiteral(R"({"response":{"data":"%1"},"devicetype":"CAT","devicename":"TS-132N"})")
        .arg(text);
}

} // namespace

class SerialFaultsTest : public QObject {
    Q_OBJECT
    std::unique_ptr<QTemporaryDir> dir;
    QString linkPath;

    // USB active, the terminal's link stored as the port, a POS page connected, and the
    // terminal opened by the service.
    void startWithTerminal(ServiceProcess &service, PosClient &pos, const devsim::PseudoTerminal &terminal) {
        service.set(QStringLiteral("MAIN_INTERFACE"), QStringLiteral("USB"));
        service.set(QStringLiteral("USB_PORT"), linkPath);
        QVERIFY(startAndConnect(service, pos));
        QVERIFY(waitUntil([&] { return holdsOpen(service.pid(), terminal.slavePath()); }, 5000));
    }

    // Waits until the service has read `count` more bytes than `before` (from any
    // descriptor: the line is the only thing talking to it here).
    static bool serviceHasRead(const ServiceProcess &service, qint64 before, qint64 count, int timeoutMs) {
        return waitUntil([&] { return ProcessUsage::bytesRead(service.pid()) - before >= count; }, timeoutMs);
    }

private slots:
    void init() {
        QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use");
        dir = std::make_unique<QTemporaryDir>();
        linkPath = dir->filePath(QStringLiteral("card-terminal"));
        qputenv("TERANOCOUNTER_SERIAL_PORTS", QFile::encodeName(linkPath));
    }
    void cleanup() { qunsetenv("TERANOCOUNTER_SERIAL_PORTS"); }

    void unplugInTheMiddleOfAnAnswerThenReplug() {
        auto terminal = std::make_unique<devsim::PseudoTerminal>();
        devsim::PortLink link(linkPath);
        QVERIFY(link.plug(*terminal));
        ServiceProcess service;
        PosClient pos;
        startWithTerminal(service, pos, *terminal);
        if (QTest::currentTestFailed())
            return;
        pos.send(payment("PAY"));
        QVERIFY(terminal->waitForReceived(3, 3000));

        // Half an answer, taken in by the service; then the cable and the name go.
        const QByteArray cut = ts132n("OLD-ANSWER");
        const qint64 before = ProcessUsage::bytesRead(service.pid());
        QVERIFY(terminal->write(cut.left(8)));
        QVERIFY(serviceHasRead(service, before, 8, 3000));
        const QString firstDevice = terminal->slavePath();
        terminal.reset();
        link.unplug();
        QVERIFY(waitUntil([&] { return !holdsOpen(service.pid(), firstDevice); }, 3000));

        // Back as a new device under the same name. Its first bytes are the rest of the
        // cut answer, without an STX of their own.
        terminal = std::make_unique<devsim::PseudoTerminal>();
        QElapsedTimer clock;
        clock.start();
        QVERIFY(link.plug(*terminal));
        QVERIFY(waitUntil([&] { return holdsOpen(service.pid(), terminal->slavePath()); }, 3000));
        qInfo("reopened %lld ms after the replug", static_cast<long long>(clock.elapsed()));
        QVERIFY(terminal->write(cut.mid(8)));
        keepRunningFor(500);
        // The half answer stays in the framing buffer across the replug (only an STX at
        // the front of a chunk empties it, by design), so this tail completes it: the POS
        // gets the answer whole, its two halves from either side of the unplug.
        QVERIFY(waitUntil([&] { return !pos.texts.isEmpty(); }, 3000));
        QCOMPARE(pos.texts.size(), 1);
        QCOMPARE(jsonObject(pos.texts.first()), expectedAnswer("OLD-ANSWER", "TS-132N"));
        pos.texts.clear();

        QVERIFY(terminal->write(ts132n("NEW")));
        QVERIFY(waitUntil([&] { return !pos.texts.isEmpty(); }, 3000));
        keepRunningFor(200);
        QCOMPARE(pos.texts, QStringList{answerFor("NEW")});
        pos.send(payment("TWO"));
        QVERIFY(terminal->waitForReceived(3, 3000));
        QCOMPARE(terminal->received(), QByteArray("TWO"));
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    void floodWithoutStxOrEtxThenAnAnswer() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(linkPath);
        QVERIFY(link.plug(terminal));
        ServiceProcess service;
        PosClient pos;
        startWithTerminal(service, pos, terminal);
        if (QTest::currentTestFailed())
            return;
        pos.send(payment("PAY"));
        QVERIFY(terminal.waitForReceived(3, 3000));

        const qint64 pid = service.pid();
        const qint64 residentBefore = ProcessUsage::residentKiB(pid);
        const qint64 readBefore = ProcessUsage::bytesRead(pid);
        // Text bytes only: no STX to start an answer, no ETX to end one.
        const QByteArray flood =
            QByteArray("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ\r\n").repeated(8 * MiB / 38 + 1).left(8 * MiB);
        QVERIFY(!flood.contains('\x02') && !flood.contains('\x03'));
        QElapsedTimer clock;
        clock.start();
        QVERIFY(terminal.writeAll(flood, 120000));
        QVERIFY(serviceHasRead(service, readBefore, flood.size(), 120000));
        const qint64 floodMs = clock.elapsed();
        const qint64 residentAfterFlood = ProcessUsage::residentKiB(pid);
        QVERIFY(service.isRunning());
        QCOMPARE(pos.texts, QStringList());

        QVERIFY(terminal.write(ts132n("AFTER FLOOD")));
        QVERIFY(waitUntil([&] { return !pos.texts.isEmpty(); }, 5000));
        keepRunningFor(300);
        QCOMPARE(pos.texts, QStringList{answerFor("AFTER FLOOD")});
        const qint64 residentAfterAnswer = ProcessUsage::residentKiB(pid);
        qInfo("8 MiB flood taken in %lld ms; service resident %lld KiB before, %lld KiB after the flood "
              "(+%lld KiB), %lld KiB after the next answer, peak %lld KiB",
              static_cast<long long>(floodMs), static_cast<long long>(residentBefore),
              static_cast<long long>(residentAfterFlood),
              static_cast<long long>(residentAfterFlood - residentBefore),
              static_cast<long long>(residentAfterAnswer),
              static_cast<long long>(ProcessUsage::peakResidentKiB(pid)));
        VERIFY_SERVES_NEXT_ORDER(service);
    }
};

QTEST_GUILESS_MAIN(SerialFaultsTest)
#include "tst_serialfaults.moc"
