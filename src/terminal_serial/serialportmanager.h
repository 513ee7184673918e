#pragma once

#include "serialport.h"

#include <QElapsedTimer>
#include <QFileSystemWatcher>
#include <QList>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <memory>
#include <sys/types.h>

using SerialPortList = QList<std::shared_ptr<SerialPort>>;

// The serial ports of this computer, kept up to date while adapters come and go.
//
// The list is the system's serial ports (as Qt's port enumeration finds them), followed by
// every path of TERANOCOUNTER_SERIAL_PORTS that exists. Each port is described by a name
// that survives unplugging and renumbering: its /dev/serial/by-id/ link name when it has
// one (that name carries the adapter's serial number, so a terminal that comes back as
// ttyUSB1 instead of ttyUSB0 is still the same choice), otherwise its system name
// (ttyS0); a port from the environment is described by its full path.
//
// Changes are noticed through inotify on the directories where device nodes and their
// links appear (and where a listed link's target lives), so an idle service does not wake
// up at all; a rescan follows a change after a short pause (udev adds the by-id link a
// moment after the node) and never more than once a second. Only where a directory
// cannot be watched does a rescan run once a second instead.
class SerialPortManager : public QObject {
    Q_OBJECT
public:
    struct Options {
        bool systemPorts = true;
        QStringList extraPaths;
        QString deviceDirectory = QStringLiteral("/dev");
        QString byIdDirectory = QStringLiteral("/dev/serial/by-id");
    };
    static constexpr int minimumRescanIntervalMs = 1000;
    static constexpr int settleDelayMs = 100;

    // The system's ports and those of TERANOCOUNTER_SERIAL_PORTS (colon-separated).
    static Options optionsFromEnvironment();
    // The one manager of the running application, created on first use.
    static SerialPortManager &sharedSerialPortManager();

    explicit SerialPortManager(Options options, QObject *parent = nullptr);
    ~SerialPortManager() override;

    SerialPortList availablePorts() const { return ports; }

    // Scans at once, as if a change had just been noticed.
    void rescanNow();

    // The stable name of a system port: its by-id link name, if a link in
    // `byIdDirectory` leads to it, else `portName`.
    static QString stableName(const QString &systemLocation, const QString &portName,
                              const QString &byIdDirectory);

    // How often a rescan has run; lets tests see that an idle manager stays idle.
    int rescanCount() const { return rescans; }
    int systemScanCount() const { return systemScans; }
    bool isPolling() const { return pollTimer.isActive(); }

signals:
    void serialPortsWereConnected(const SerialPortList &ports);
    void serialPortsWereDisconnected(const SerialPortList &ports);

private:
    struct Identity {
        dev_t linkDevice = 0;
        ino_t linkInode = 0;
        dev_t device = 0;
        bool operator==(const Identity &) const = default;
    };
    struct Found {
        QString path;
        QString description;
        Identity identity;
    };

    QList<Found> scan();
    QList<Found> scanSystem();
    void rescan();
    void directoryChanged(const QString &directory);
    void scheduleRescan();
    void updateWatches();
    void adopt(const std::shared_ptr<SerialPort> &port);
    void lineBroke(SerialPort *port);
    void portVanished(SerialPort *port);
    static std::optional<Identity> identityOf(const QString &path);

    Options options;
    SerialPortList ports;
    QList<Identity> identities; // beside `ports`, same order
    QFileSystemWatcher watcher;
    // Enumerating the system's ports walks all of sysfs's ttys; it is done again only when
    // something changed where device nodes live, not for every link coming and going.
    QList<Found> systemPorts;
    QStringList systemDirectories;
    bool systemChanged = true;
    QTimer rescanTimer;
    QTimer pollTimer;
    QElapsedTimer sinceLastRescan;
    int rescans = 0;
    int systemScans = 0;
};
