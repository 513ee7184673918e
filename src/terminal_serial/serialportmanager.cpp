#include "serialportmanager.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QPointer>
#include <QSerialPortInfo>
#include <QSet>
#include <algorithm>
#include <sys/stat.h>

namespace {

// The directory itself, or the closest of its parents that exists: watching that one
// shows when the directory we really want comes into being.
QString nearestExistingDirectory(const QString &directory) {
    QString path = QDir::cleanPath(QDir(directory).absolutePath());
    while (!QFileInfo(path).isDir()) {
        const QString parent = QFileInfo(path).path();
        if (parent == path)
            break;
        path = parent;
    }
    return path;
}

} // namespace

SerialPortManager::Options SerialPortManager::optionsFromEnvironment() {
    Options options;
    const QString extra = qEnvironmentVariable("TERANOCOUNTER_SERIAL_PORTS");
    for (const QString &path : extra.split(u':', Qt::SkipEmptyParts))
        options.extraPaths << path;
    return options;
}

SerialPortManager &SerialPortManager::sharedSerialPortManager() {
    // Owned by the application, so it goes before the event loop's machinery does.
    static QPointer<SerialPortManager> shared;
    if (!shared)
        shared = new SerialPortManager(optionsFromEnvironment(), QCoreApplication::instance());
    return *shared;
}

SerialPortManager::SerialPortManager(Options options, QObject *parent)
    : QObject(parent), options(std::move(options)) {
    rescanTimer.setSingleShot(true);
    connect(&rescanTimer, &QTimer::timeout, this, &SerialPortManager::rescan);
    pollTimer.setInterval(minimumRescanIntervalMs);
    pollTimer.setTimerType(Qt::PreciseTimer);
    connect(&pollTimer, &QTimer::timeout, this, [this] {
        systemChanged = true; // nothing tells what changed
        if (sinceLastRescan.elapsed() >= minimumRescanIntervalMs - 10)
            rescan();
        else
            scheduleRescan();
    });
    connect(&watcher, &QFileSystemWatcher::directoryChanged, this, &SerialPortManager::directoryChanged);

    // The first list is there at once; nobody is listening yet, so nothing is announced.
    sinceLastRescan.start();
    for (const Found &found : scan()) {
        auto port = std::make_shared<SerialPort>(found.path, found.description);
        adopt(port);
        ports << port;
        identities << found.identity;
    }
    updateWatches();
}

SerialPortManager::~SerialPortManager() {
    for (const auto &port : std::as_const(ports))
        disconnect(port.get(), nullptr, this, nullptr);
}

std::optional<SerialPortManager::Identity> SerialPortManager::identityOf(const QString &path) {
    const QByteArray name = QFile::encodeName(path);
    struct stat link {};
    struct stat target {};
    if (::lstat(name.constData(), &link) != 0 || ::stat(name.constData(), &target) != 0)
        return std::nullopt;
    return Identity{link.st_dev, link.st_ino, target.st_rdev};
}

QString SerialPortManager::stableName(const QString &systemLocation, const QString &portName,
                                      const QString &byIdDirectory) {
    const QString device = QFileInfo(systemLocation).canonicalFilePath();
    if (device.isEmpty())
        return portName;
    const QFileInfoList links =
        QDir(byIdDirectory)
            .entryInfoList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    for (const QFileInfo &link : links)
        if (link.isSymLink() && link.canonicalFilePath() == device)
            return link.fileName();
    return portName;
}

QList<SerialPortManager::Found> SerialPortManager::scanSystem() {
    QList<Found> found;
    if (!options.systemPorts)
        return found;
    ++systemScans;
    for (const QSerialPortInfo &info : QSerialPortInfo::availablePorts()) {
        const std::optional<Identity> identity = identityOf(info.systemLocation());
        if (!identity)
            continue;
        found << Found{info.systemLocation(),
                       stableName(info.systemLocation(), info.portName(), options.byIdDirectory), *identity};
    }
    return found;
}

QList<SerialPortManager::Found> SerialPortManager::scan() {
    if (systemChanged)
        systemPorts = scanSystem();
    systemChanged = false;
    QList<Found> found = systemPorts;
    QSet<QString> listed;
    for (const Found &f : std::as_const(found))
        listed << f.path;
    for (const QString &path : options.extraPaths) {
        if (listed.contains(path))
            continue;
        const std::optional<Identity> identity = identityOf(path);
        if (!identity)
            continue;
        found << Found{path, path, *identity};
        listed << path;
    }
    return found;
}

void SerialPortManager::adopt(const std::shared_ptr<SerialPort> &port) {
    SerialPort *raw = port.get();
    connect(raw, &SerialPort::lineBroke, this, [this, raw] { lineBroke(raw); });
}

void SerialPortManager::rescanNow() {
    systemChanged = true;
    rescan();
}

void SerialPortManager::directoryChanged(const QString &directory) {
    if (systemDirectories.contains(directory))
        systemChanged = true;
    scheduleRescan();
}

void SerialPortManager::rescan() {
    rescanTimer.stop();
    sinceLastRescan.restart();
    ++rescans;

    // A port stays the same object while the same device sits at the same path under
    // the same name; anything else is an unplug and a plug.
    const QList<Found> found = scan();
    SerialPortList next;
    QList<Identity> nextIdentities;
    SerialPortList connected;
    QList<bool> kept(ports.size(), false);
    for (const Found &f : found) {
        qsizetype match = -1;
        for (qsizetype i = 0; i < ports.size() && match < 0; ++i)
            if (!kept[i] && ports[i]->path() == f.path && ports[i]->description() == f.description &&
                identities[i] == f.identity && !ports[i]->isRemoved())
                match = i;
        if (match >= 0) {
            kept[match] = true;
            next << ports[match];
        } else {
            auto port = std::make_shared<SerialPort>(f.path, f.description);
            adopt(port);
            next << port;
            connected << port;
        }
        nextIdentities << f.identity;
    }
    SerialPortList disconnected;
    for (qsizetype i = 0; i < ports.size(); ++i)
        if (!kept[i])
            disconnected << ports[i];

    ports = next;
    identities = nextIdentities;
    updateWatches();

    for (const auto &port : std::as_const(disconnected))
        port->wasRemovedFromSystem();
    if (!disconnected.isEmpty())
        emit serialPortsWereDisconnected(disconnected);
    if (!connected.isEmpty())
        emit serialPortsWereConnected(connected);
}

void SerialPortManager::lineBroke(SerialPort *raw) {
    const auto it = std::find_if(ports.begin(), ports.end(), [raw](const auto &p) { return p.get() == raw; });
    if (it == ports.end()) {
        raw->wasRemovedFromSystem();
        return;
    }
    // A broken line is not an unplug; the list decides, and looks at the device now rather
    // than at its next rescan. Still there: the same port goes on, at its baud rate.
    if (identityOf(raw->path()) == std::optional<Identity>(identities.at(it - ports.begin())))
        raw->reopenAfterLineFailure();
    else
        portVanished(raw);
}

void SerialPortManager::portVanished(SerialPort *raw) {
    const auto it = std::find_if(ports.begin(), ports.end(), [raw](const auto &p) { return p.get() == raw; });
    if (it == ports.end()) {
        raw->wasRemovedFromSystem();
        return;
    }
    // Off the list at once, so that reloading the list cannot reopen the dead device
    // straight away; the rescan that follows puts it back if its path is still there.
    const std::shared_ptr<SerialPort> port = *it;
    identities.removeAt(it - ports.begin());
    ports.erase(it);
    port->wasRemovedFromSystem();
    emit serialPortsWereDisconnected({port});
    systemChanged = true;
    scheduleRescan();
    // We are inside the port's own notification: it may be the last reference, so let go
    // of it only once the event loop has left the port.
    QMetaObject::invokeMethod(
        this, [port] {}, Qt::QueuedConnection);
}

void SerialPortManager::scheduleRescan() {
    if (rescanTimer.isActive())
        return;
    const qint64 sinceLast = sinceLastRescan.elapsed();
    const qint64 delay = std::max<qint64>(settleDelayMs, minimumRescanIntervalMs - sinceLast);
    rescanTimer.start(static_cast<int>(delay));
}

void SerialPortManager::updateWatches() {
    QStringList wanted;
    systemDirectories.clear();
    if (options.systemPorts)
        systemDirectories << nearestExistingDirectory(options.deviceDirectory)
                          << nearestExistingDirectory(options.byIdDirectory);
    wanted << systemDirectories;
    for (const QString &path : options.extraPaths) {
        const QFileInfo info(path);
        wanted << nearestExistingDirectory(info.absolutePath());
        // A link to a pseudo-terminal goes dead when its terminal closes, without any
        // change in the link's own directory: watch where the target lives as well.
        if (info.isSymLink()) {
            const QString target = info.canonicalFilePath();
            wanted << nearestExistingDirectory(target.isEmpty()
                                                   ? QFileInfo(info.symLinkTarget()).absolutePath()
                                                   : QFileInfo(target).absolutePath());
        }
    }
    wanted.removeDuplicates();

    const QStringList watched = watcher.directories();
    QStringList stale;
    for (const QString &directory : watched)
        if (!wanted.contains(directory))
            stale << directory;
    if (!stale.isEmpty())
        watcher.removePaths(stale);

    bool allWatched = true;
    for (const QString &directory : std::as_const(wanted))
        if (!watched.contains(directory) && !watcher.addPath(directory))
            allWatched = false;
    if (allWatched)
        pollTimer.stop();
    else if (!pollTimer.isActive())
        pollTimer.start();
}
