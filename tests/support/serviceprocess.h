#pragma once

#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

// The real `teranocounter` executable, run the way a supervisor runs it: its own HOME
// (so its own settings file), standard output and standard error captured line by line.
class ServiceProcess {
public:
    static constexpr quint16 gatewayPort = 49999;
    static inline const QString recvFired = QStringLiteral("RECV FIRED!!!:");

    ServiceProcess();
    ~ServiceProcess();

    QString home() const { return homeDir.path(); }
    QString configHome() const { return homeDir.path() + QStringLiteral("/.config"); }
    QString settingsFile() const {
        return configHome() + QStringLiteral("/teranocounter/teranocounter.conf");
    }
    QString stateHome() const { return homeDir.path() + QStringLiteral("/.local/state"); }
    QString pendingStoreFile() const { return stateHome() + QStringLiteral("/teranocounter/pending.sqlite"); }

    // Runs `teranocounter <arguments>` to completion (for --set and --settings).
    int runToEnd(const QStringList &arguments, QByteArray *out = nullptr, QByteArray *err = nullptr);
    // The lines `--pending` prints for this service's store, blank ones left out.
    QStringList pendingLines() {
        QByteArray out;
        runToEnd({QStringLiteral("--pending")}, &out);
        QStringList lines = QString::fromUtf8(out).split(u'\n');
        lines.removeAll(QString());
        return lines;
    }
    void set(const QString &key, const QString &value);

    // Starts `teranocounter --headless` and waits until the gateway accepts connections
    // (or, when `expectGateway` is false, until it has printed its first line).
    bool start(bool expectGateway = true, const QStringList &extraArguments = {});
    // As start(), without --headless: with a DISPLAY in `extraEnvironment` the service
    // finds a screen and, when the desktop has a system tray, puts its icon there.
    bool startOnScreen(bool expectGateway = true, const QStringList &arguments = {});

    // Set for every run on top of the temporary HOME (a DISPLAY, XDG_CONFIG_DIRS). Empty
    // by default: the service then runs as a supervisor without a screen starts it.
    QProcessEnvironment extraEnvironment;
    // The service's soft and hard descriptor limits, as `prlimit --nofile=SOFT:HARD` would
    // set them; 0 leaves this process's own.
    quint64 softDescriptorLimit = 0;
    quint64 hardDescriptorLimit = 0;
    bool waitForExit(int timeoutMs);
    // SIGKILL, as a crash or the OOM killer would end it; the next start() begins afresh
    // with the same HOME.
    void killHard();
    bool isRunning() const;
    qint64 pid() const { return process.processId(); }

    QStringList stdoutLines();
    // The lines the service has written by now, read from the pipe at once rather than when
    // the event loop next gets to it: after something the service did only once it had
    // printed a line, that line is among them.
    QStringList stdoutLinesWrittenByNow();
    QStringList stderrLines();
    // Waits for a stdout line equal to `line` (counting from `fromIndex`).
    bool waitForStdoutLine(const QString &line, int timeoutMs, qsizetype fromIndex = 0);
    bool waitForStdoutLineCount(qsizetype count, int timeoutMs);
    int exitCode() const { return process.exitCode(); }
    QProcess::ExitStatus exitStatus() const { return process.exitStatus(); }

    static bool gatewayAcceptsConnections();

private:
    bool launch(const QStringList &arguments, bool expectGateway);
    void drain();
    QProcessEnvironment environment() const;

    QTemporaryDir homeDir;
    QProcess process;
    QByteArray outBuffer;
    QByteArray errBuffer;
};
