#include "serviceprocess.h"

#include "wait.h"

#include <QTcpSocket>
#include <sys/resource.h>

ServiceProcess::ServiceProcess() {
    process.setProcessChannelMode(QProcess::SeparateChannels);
}

ServiceProcess::~ServiceProcess() {
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(5000);
    }
}

QProcessEnvironment ServiceProcess::environment() const {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("HOME"), homeDir.path());
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome());
    env.insert(QStringLiteral("XDG_STATE_HOME"), stateHome());
    env.remove(QStringLiteral("DISPLAY"));
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    env.remove(QStringLiteral("QT_QPA_PLATFORM"));
    const QStringList extraNames = extraEnvironment.keys();
    for (const QString &name : extraNames)
        env.insert(name, extraEnvironment.value(name));
    return env;
}

int ServiceProcess::runToEnd(const QStringList &arguments, QByteArray *out, QByteArray *err) {
    QProcess chore;
    chore.setProcessEnvironment(environment());
    chore.start(QStringLiteral(TERANOCOUNTER_BIN), arguments);
    // The test's own event loop keeps running meanwhile: the simulated terminals and
    // printers of the test live on it, and a terminal that could not answer while the test
    // sat in waitForFinished() (a second under load, for a --pending run beside a payment)
    // would miss the service's one-second wait for its acknowledgement.
    if (!waitUntil([&] { return chore.state() == QProcess::NotRunning; }, 30000))
        return -1;
    if (out)
        *out = chore.readAllStandardOutput();
    if (err)
        *err = chore.readAllStandardError();
    return chore.exitStatus() == QProcess::NormalExit ? chore.exitCode() : -1;
}

void ServiceProcess::set(const QString &key, const QString &value) {
    runToEnd({QStringLiteral("--set"), key + u'=' + value});
}

bool ServiceProcess::gatewayAcceptsConnections() {
    QTcpSocket probe;
    probe.connectToHost(QHostAddress::LocalHost, 49999);
    const bool ok = probe.waitForConnected(200);
    probe.abort();
    return ok;
}

void ServiceProcess::killHard() {
    if (process.state() == QProcess::NotRunning)
        return;
    process.kill();
    process.waitForFinished(5000);
}

bool ServiceProcess::start(bool expectGateway, const QStringList &extraArguments) {
    return launch(QStringList{QStringLiteral("--headless")} + extraArguments, expectGateway);
}

bool ServiceProcess::startOnScreen(bool expectGateway, const QStringList &arguments) {
    return launch(arguments, expectGateway);
}

bool ServiceProcess::launch(const QStringList &arguments, bool expectGateway) {
    if (process.isOpen())
        drain();
    outBuffer.clear();
    errBuffer.clear();
    process.setProcessEnvironment(environment());
    if (softDescriptorLimit > 0) {
        const rlimit limit{softDescriptorLimit, hardDescriptorLimit};
        process.setChildProcessModifier([limit] { setrlimit(RLIMIT_NOFILE, &limit); });
    } else {
        process.setChildProcessModifier({});
    }
    process.start(QStringLiteral(TERANOCOUNTER_BIN), arguments);
    if (!process.waitForStarted(10000))
        return false;
    if (!expectGateway)
        return true;
    return waitUntil([this] { return process.state() != QProcess::Running || gatewayAcceptsConnections(); },
                     15000) &&
           process.state() == QProcess::Running;
}

bool ServiceProcess::isRunning() const {
    return process.state() == QProcess::Running;
}

bool ServiceProcess::waitForExit(int timeoutMs) {
    return waitUntil([this] { return process.state() == QProcess::NotRunning; }, timeoutMs);
}

void ServiceProcess::drain() {
    outBuffer += process.readAllStandardOutput();
    errBuffer += process.readAllStandardError();
}

static QStringList completeLines(const QByteArray &buffer) {
    QStringList lines = QString::fromUtf8(buffer).split(u'\n');
    lines.removeLast(); // the part after the last newline is not a line yet
    return lines;
}

QStringList ServiceProcess::stdoutLines() {
    drain();
    return completeLines(outBuffer);
}

QStringList ServiceProcess::stdoutLinesWrittenByNow() {
    process.setReadChannel(QProcess::StandardOutput);
    while (process.waitForReadyRead(0)) {
    }
    return stdoutLines();
}

QStringList ServiceProcess::stderrLines() {
    drain();
    return completeLines(errBuffer);
}

bool ServiceProcess::waitForStdoutLine(const QString &line, int timeoutMs, qsizetype fromIndex) {
    return waitUntil([&] { return stdoutLines().indexOf(line, fromIndex) >= 0; }, timeoutMs);
}

bool ServiceProcess::waitForStdoutLineCount(qsizetype count, int timeoutMs) {
    return waitUntil([&] { return stdoutLines().size() >= count; }, timeoutMs);
}
