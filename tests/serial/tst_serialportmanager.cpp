// Serial port discovery and hot-plug, with pseudo-terminals as adapters and symlinks as
// their names: a link appearing is a plug, a link going away (or its terminal closing)
// an unplug.
#include "devsim/pseudoterminal.h"
#include "terminal_serial/serialportmanager.h"
#include "wait.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

namespace {

SerialPortManager::Options envOnly(const QStringList &paths) {
    SerialPortManager::Options options;
    options.systemPorts = false;
    options.extraPaths = paths;
    return options;
}

QStringList descriptions(const SerialPortList &ports) {
    QStringList names;
    for (const auto &p : ports)
        names << p->description();
    return names;
}

struct RecordingDelegate : SerialPortDelegate {
    int removals = 0;
    int errors = 0;
    QByteArray data;
    void serialPortWasRemovedFromSystem(SerialPort &) override { ++removals; }
    void serialPortDidReceiveData(SerialPort &, const QByteArray &d) override { data += d; }
    void serialPortDidEncounterError(SerialPort &, QSerialPort::SerialPortError) override { ++errors; }
};

} // namespace

class SerialPortManagerTest : public QObject {
    Q_OBJECT
    std::unique_ptr<QTemporaryDir> dir;

    QString path(const QString &name) const { return dir->filePath(name); }

private slots:
    void init() { dir = std::make_unique<QTemporaryDir>(); }

    void listsTheEnvironmentsPathsThatExistInTheirOrder() {
        devsim::PseudoTerminal a, b;
        devsim::PortLink first(path("first")), second(path("second"));
        QVERIFY(first.plug(a));
        QVERIFY(second.plug(b));
        SerialPortManager manager(envOnly({path("second"), path("missing"), path("first"), path("second")}));
        const SerialPortList ports = manager.availablePorts();
        QCOMPARE(descriptions(ports), (QStringList{path("second"), path("first")}));
        QCOMPARE(ports[0]->path(), path("second"));
    }

    void environmentVariableIsColonSeparated() {
        qputenv("TERANOCOUNTER_SERIAL_PORTS", "/a/b::/c");
        const SerialPortManager::Options options = SerialPortManager::optionsFromEnvironment();
        qunsetenv("TERANOCOUNTER_SERIAL_PORTS");
        QCOMPARE(options.extraPaths, (QStringList{"/a/b", "/c"}));
        QVERIFY(options.systemPorts);
    }

    void systemPortIsNamedByItsByIdLink() {
        devsim::PseudoTerminal terminal;
        QVERIFY(QDir(dir->path()).mkpath("by-id"));
        const QString byId = path("by-id");
        QVERIFY(QFile::link(terminal.slavePath(), byId + "/usb-FTDI_FT232R_USB_UART_A5069RR4-if00-port0"));
        QCOMPARE(SerialPortManager::stableName(terminal.slavePath(), "pts", byId),
                 QStringLiteral("usb-FTDI_FT232R_USB_UART_A5069RR4-if00-port0"));
        // Reached through another name for the same device, it is still the same adapter.
        devsim::PortLink alias(path("alias"));
        QVERIFY(alias.plug(terminal));
        QCOMPARE(SerialPortManager::stableName(path("alias"), "alias", byId),
                 QStringLiteral("usb-FTDI_FT232R_USB_UART_A5069RR4-if00-port0"));
    }

    void systemPortWithoutByIdLinkKeepsItsSystemName() {
        devsim::PseudoTerminal terminal, other;
        QVERIFY(QDir(dir->path()).mkpath("by-id"));
        QVERIFY(QFile::link(other.slavePath(), path("by-id") + "/usb-other"));
        QCOMPARE(SerialPortManager::stableName(terminal.slavePath(), "ttyS0", path("by-id")),
                 QStringLiteral("ttyS0"));
        QCOMPARE(SerialPortManager::stableName(terminal.slavePath(), "ttyS0", path("no-such-dir")),
                 QStringLiteral("ttyS0"));
    }

    void plugAndUnplugAreAnnouncedWithinASecondAndAHalf() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        SerialPortManager manager(envOnly({link.path()}));
        QVERIFY(manager.availablePorts().isEmpty());
        QSignalSpy connected(&manager, &SerialPortManager::serialPortsWereConnected);
        QSignalSpy disconnected(&manager, &SerialPortManager::serialPortsWereDisconnected);

        QElapsedTimer clock;
        clock.start();
        QVERIFY(link.plug(terminal));
        QVERIFY(waitUntil([&] { return connected.size() == 1; }, 5000));
        qInfo("plug noticed after %lld ms", clock.elapsed());
        const auto plugged = connected[0][0].value<SerialPortList>();
        QCOMPARE(descriptions(plugged), QStringList{link.path()});
        QCOMPARE(manager.availablePorts(), plugged);

        RecordingDelegate delegate;
        plugged[0]->setDelegate(&delegate);
        QVERIFY(plugged[0]->open());
        clock.restart();
        link.unplug();
        QVERIFY(waitUntil([&] { return disconnected.size() == 1; }, 5000));
        qInfo("unplug noticed after %lld ms", clock.elapsed());
        QCOMPARE(disconnected[0][0].value<SerialPortList>(), plugged);
        QVERIFY(manager.availablePorts().isEmpty());
        // The open port heard first that it is gone, and was closed.
        QCOMPARE(delegate.removals, 1);
        QVERIFY(!plugged[0]->isOpen());
        QCOMPARE(connected.size(), 1);
    }

    void aDirectoryThatDoesNotExistYetIsWatchedFromItsParent() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("later/term"));
        SerialPortManager manager(envOnly({link.path()}));
        QSignalSpy connected(&manager, &SerialPortManager::serialPortsWereConnected);
        QVERIFY(QDir(dir->path()).mkdir("later"));
        QVERIFY(link.plug(terminal));
        QVERIFY(waitUntil([&] { return connected.size() == 1; }, 2500));
        QVERIFY(!manager.isPolling());
    }

    void aLinkWhoseTerminalClosesIsUnplugged() {
        auto terminal = std::make_unique<devsim::PseudoTerminal>();
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(*terminal));
        SerialPortManager manager(envOnly({link.path()}));
        QCOMPARE(manager.availablePorts().size(), 1);
        QSignalSpy disconnected(&manager, &SerialPortManager::serialPortsWereDisconnected);
        terminal.reset(); // the link stays, its target goes
        QVERIFY(waitUntil([&] { return disconnected.size() == 1; }, 5000));
        QVERIFY(manager.availablePorts().isEmpty());
    }

    void relinkingToAnotherTerminalIsAnUnplugAndAPlug() {
        devsim::PseudoTerminal first, second;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(first));
        SerialPortManager manager(envOnly({link.path()}));
        const auto before = manager.availablePorts();
        QSignalSpy connected(&manager, &SerialPortManager::serialPortsWereConnected);
        QSignalSpy disconnected(&manager, &SerialPortManager::serialPortsWereDisconnected);
        QVERIFY(link.plug(second)); // removed and made again at once: one rescan sees both
        QVERIFY(waitUntil([&] { return connected.size() == 1; }, 5000));
        QCOMPARE(disconnected.size(), 1);
        QCOMPARE(disconnected[0][0].value<SerialPortList>(), before);
        QVERIFY(manager.availablePorts()[0] != before[0]);
        QCOMPARE(manager.availablePorts()[0]->description(), link.path());
    }

    void anIdleManagerDoesNotRescan() {
        devsim::PortLink link(path("term"));
        SerialPortManager manager(envOnly({link.path()}));
        const int before = manager.rescanCount();
        keepRunningFor(2500);
        QCOMPARE(manager.rescanCount(), before);
        QVERIFY(!manager.isPolling());
    }

    void rescansComeAtMostOnceASecondHoweverBusyTheDirectory() {
        devsim::PortLink link(path("term"));
        SerialPortManager manager(envOnly({link.path()}));
        QElapsedTimer clock;
        clock.start();
        QList<qint64> rescanTimes;
        int lastCount = manager.rescanCount();
        int n = 0;
        while (clock.elapsed() < 3500) {
            QFile f(path(QStringLiteral("churn%1").arg(n++)));
            QVERIFY(f.open(QIODevice::WriteOnly));
            f.close();
            keepRunningFor(20);
            if (manager.rescanCount() != lastCount) {
                lastCount = manager.rescanCount();
                rescanTimes << clock.elapsed();
            }
        }
        QVERIFY2(rescanTimes.size() >= 2, "the changes were not noticed");
        QVERIFY2(rescanTimes.size() <= 4, qPrintable(QString::number(rescanTimes.size())));
        for (qsizetype i = 1; i < rescanTimes.size(); ++i)
            QVERIFY2(rescanTimes[i] - rescanTimes[i - 1] >= 950,
                     qPrintable(QStringLiteral("%1 ms apart").arg(rescanTimes[i] - rescanTimes[i - 1])));
    }

    void onlyChangesWhereDevicesLiveMakeTheSystemListBeReadAgain() {
        QVERIFY(QDir(dir->path()).mkpath("dev"));
        QVERIFY(QDir(dir->path()).mkpath("links"));
        SerialPortManager::Options options;
        options.deviceDirectory = path("dev");
        options.byIdDirectory = path("dev/serial/by-id");
        options.extraPaths = {path("links/term")};
        SerialPortManager manager(options);
        QCOMPARE(manager.systemScanCount(), 1);
        QSignalSpy connected(&manager, &SerialPortManager::serialPortsWereConnected);

        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("links/term"));
        QVERIFY(link.plug(terminal));
        QVERIFY(waitUntil([&] { return connected.size() == 1; }, 2000));
        QCOMPARE(manager.systemScanCount(), 1); // a link came: the system's ports were not read again
        QCOMPARE(manager.availablePorts().last()->description(), link.path());

        const int rescans = manager.rescanCount();
        QFile node(path("dev/ttyUSB7"));
        QVERIFY(node.open(QIODevice::WriteOnly));
        node.close();
        QVERIFY(waitUntil([&] { return manager.rescanCount() > rescans; }, 2000));
        QCOMPARE(manager.systemScanCount(), 2);
        QCOMPARE(connected.size(), 1);
    }

    void aVanishedOpenDeviceIsRemovedOnceAndDoesNotSpin() {
        auto terminal = std::make_unique<devsim::PseudoTerminal>();
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(*terminal));
        SerialPortManager manager(envOnly({link.path()}));
        const auto port = manager.availablePorts().value(0);
        QVERIFY(port);
        RecordingDelegate delegate;
        port->setDelegate(&delegate);
        QVERIFY(port->open());
        QSignalSpy disconnected(&manager, &SerialPortManager::serialPortsWereDisconnected);

        terminal->write("hello");
        QVERIFY(waitUntil([&] { return delegate.data == "hello"; }, 2000));
        QVERIFY(port->sendData("PAY"));
        QVERIFY(terminal->waitForReceived(3, 2000));
        QElapsedTimer clock;
        clock.start();
        terminal.reset(); // the adapter is pulled out; the link is still there
        // Taken from the failing reads at once, not from the next rescan (a second or more away).
        QVERIFY(waitUntil([&] { return delegate.removals == 1; }, 900));
        qInfo("removed after %lld ms, %d errors", clock.elapsed(), delegate.errors);
        QVERIFY(!port->isOpen());
        QVERIFY(manager.availablePorts().isEmpty());
        QVERIFY(disconnected.size() >= 1);
        keepRunningFor(1500);
        QCOMPARE(delegate.removals, 1);
        QVERIFY2(delegate.errors <= 3, qPrintable(QString::number(delegate.errors)));
        QVERIFY(!port->sendData("x"));
    }

    void aLineThatBreaksWhileTheDeviceStaysIsTheSamePortAtItsRate() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        const auto port = manager.availablePorts().value(0);
        QVERIFY(port);
        RecordingDelegate delegate;
        port->setDelegate(&delegate);
        QVERIFY(port->open());
        QVERIFY(port->setBaudRate(38400));
        QSignalSpy disconnected(&manager, &SerialPortManager::serialPortsWereDisconnected);
        QSignalSpy connected(&manager, &SerialPortManager::serialPortsWereConnected);

        if (!terminal.hangUpLine())
            QSKIP("hanging up a line needs CAP_SYS_ADMIN");
        // The descriptor fails at once; the line comes back as the same port, at its rate.
        QVERIFY(waitUntil([&] { return delegate.errors > 0; }, 2000));
        QVERIFY(waitUntil([&] { return port->isOpen(); }, 2000));
        keepRunningFor(300);
        QCOMPARE(delegate.removals, 0);
        QCOMPARE(disconnected.size(), 0);
        QCOMPARE(connected.size(), 0);
        QCOMPARE(manager.availablePorts().value(0), port);
        QCOMPARE(port->baudRate(), 38400);
        QCOMPARE(terminal.outputSpeed(), speed_t(B38400));
        // Both ways, on the line as opened again.
        QVERIFY(port->sendData("PAY"));
        QVERIFY(terminal.waitForReceived(3, 2000));
        QCOMPARE(terminal.received(), QByteArray("PAY"));
        terminal.write("ANSWER");
        QVERIFY(waitUntil([&] { return delegate.data.endsWith("ANSWER"); }, 2000));
        // The failing reads were a handful, not a busy loop.
        keepRunningFor(1000);
        QVERIFY2(delegate.errors <= 3, qPrintable(QString::number(delegate.errors)));
    }

    void anOpenPortKeepsItsBaudRateAcrossCloseAndOpen() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        const auto port = manager.availablePorts().value(0);
        QVERIFY(port->open());
        QCOMPARE(terminal.outputSpeed(), speed_t(B9600)); // the line's own default
        QVERIFY(port->setBaudRate(57600));
        QCOMPARE(terminal.outputSpeed(), speed_t(B57600));
        port->close();
        QVERIFY(port->open());
        QCOMPARE(terminal.outputSpeed(), speed_t(B57600));
        QVERIFY(port->sendData(QByteArray::fromHex("000a0d1113ff")));
        QVERIFY(terminal.waitForReceived(6, 2000));
        QCOMPARE(terminal.received(), QByteArray::fromHex("000a0d1113ff")); // raw both ways
    }
};

QTEST_GUILESS_MAIN(SerialPortManagerTest)
#include "tst_serialportmanager.moc"
