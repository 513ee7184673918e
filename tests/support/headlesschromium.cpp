#include "headlesschromium.h"

#include "wait.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QStringList>

namespace {

void keepReplies(QWebSocket &socket, QHash<int, QJsonObject> &replies) {
    QObject::connect(&socket, &QWebSocket::textMessageReceived, [&replies](const QString &text) {
        const QJsonObject message = QJsonDocument::fromJson(text.toUtf8()).object();
        // Events (no id) are of no interest: the page keeps what it received itself.
        if (message.contains(QStringLiteral("id")))
            replies.insert(message.value(QStringLiteral("id")).toInt(), message);
    });
}

} // namespace

QString HeadlessChromium::jsString(const QString &text) {
    // A JSON string is a JavaScript string literal.
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.sliced(1, array.size() - 2));
}

HeadlessChromium::HeadlessChromium() {
    process.setProcessChannelMode(QProcess::SeparateChannels);
    keepReplies(pageSocket, replies);
}

HeadlessChromium::~HeadlessChromium() {
    close(5000);
}

bool HeadlessChromium::fail(const QString &why) {
    lastError = why;
    return false;
}

QString HeadlessChromium::lastStderrLine() {
    stderrBuffer += process.readAllStandardError();
    const QStringList lines = QString::fromUtf8(stderrBuffer).split(u'\n', Qt::SkipEmptyParts);
    return lines.isEmpty() ? QStringLiteral("(nothing on stderr)") : lines.last().trimmed();
}

bool HeadlessChromium::start(const QUrl &page, int timeoutMs) {
    if (!profile.isValid())
        return fail(QStringLiteral("cannot create a temporary profile directory"));
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    // Nothing of the machine's own user leaks in or out: caches and settings stay in the
    // throwaway profile, and no display is ever used.
    env.insert(QStringLiteral("HOME"), profile.path());
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), profile.path() + QStringLiteral("/config"));
    env.insert(QStringLiteral("XDG_CACHE_HOME"), profile.path() + QStringLiteral("/cache"));
    env.remove(QStringLiteral("DISPLAY"));
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    process.setProcessEnvironment(env);
    QStringList arguments{QStringLiteral("--headless"),
                          QStringLiteral("--no-sandbox"), // root has no sandbox
                          QStringLiteral("--disable-gpu"),
                          QStringLiteral("--disable-quic"),
                          QStringLiteral("--no-first-run"),
                          QStringLiteral("--disable-background-networking"),
                          QStringLiteral("--disable-component-update"),
                          QStringLiteral("--disable-sync"),
                          QStringLiteral("--user-data-dir=") + profile.path() + QStringLiteral("/data"),
                          QStringLiteral("--remote-debugging-port=0")};
    process.start(binary, arguments + extraArguments + QStringList{page.toString()});
    if (!process.waitForStarted(10000))
        return fail(QStringLiteral("cannot start %1: %2").arg(binary, process.errorString()));

    QString browserPath;
    const std::optional<quint16> port = waitForDevToolsPort(timeoutMs, &browserPath);
    if (!port)
        return false;
    browserEndpoint = QUrl(QStringLiteral("ws://127.0.0.1:%1%2").arg(*port).arg(browserPath));
    const std::optional<QUrl> target = waitForPageTarget(*port, page, timeoutMs);
    if (!target)
        return false;
    pageSocket.open(*target);
    if (!waitUntil([this] { return pageSocket.state() == QAbstractSocket::ConnectedState; }, 5000))
        return fail(QStringLiteral("cannot attach to the page at %1: %2")
                        .arg(target->toString(), pageSocket.errorString()));
    return true;
}

std::optional<quint16> HeadlessChromium::waitForDevToolsPort(int timeoutMs, QString *browserPath) {
    // With --remote-debugging-port=0 the browser picks a free port and writes it, with
    // the browser's own endpoint, into this file once it listens.
    const QString path = profile.path() + QStringLiteral("/data/DevToolsActivePort");
    QStringList lines;
    const bool written = waitUntil(
        [&] {
            if (process.state() == QProcess::NotRunning)
                return true;
            QFile file(path);
            if (!file.open(QIODevice::ReadOnly))
                return false;
            lines = QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts);
            return lines.size() >= 2; // the file may be caught half written
        },
        timeoutMs);
    if (process.state() == QProcess::NotRunning) {
        fail(QStringLiteral("%1 exited (code %2) before it listened for DevTools: %3")
                 .arg(binary)
                 .arg(process.exitCode())
                 .arg(lastStderrLine()));
        return std::nullopt;
    }
    if (!written) {
        fail(QStringLiteral("%1 wrote no DevToolsActivePort within %2 ms: %3")
                 .arg(binary)
                 .arg(timeoutMs)
                 .arg(lastStderrLine()));
        return std::nullopt;
    }
    bool ok = false;
    const uint port = lines.first().trimmed().toUInt(&ok);
    if (!ok || port == 0 || port > 65535) {
        fail(QStringLiteral("DevToolsActivePort holds no port: %1").arg(lines.first()));
        return std::nullopt;
    }
    *browserPath = lines.at(1).trimmed();
    return static_cast<quint16>(port);
}

std::optional<QUrl> HeadlessChromium::waitForPageTarget(quint16 port, const QUrl &page, int timeoutMs) {
    QNetworkAccessManager network;
    QStringList seen;
    std::optional<QUrl> found;
    waitUntil(
        [&] {
            QNetworkReply *reply =
                network.get(QNetworkRequest(QUrl(QStringLiteral("http://127.0.0.1:%1/json/list").arg(port))));
            const bool answered = waitUntil([reply] { return reply->isFinished(); }, 2000);
            const QByteArray body = answered ? reply->readAll() : QByteArray();
            reply->deleteLater();
            seen.clear();
            for (const QJsonValue &value : QJsonDocument::fromJson(body).array()) {
                const QJsonObject target = value.toObject();
                const QString url = target.value(QStringLiteral("url")).toString();
                seen << target.value(QStringLiteral("type")).toString() + u' ' + url;
                if (target.value(QStringLiteral("type")).toString() == QLatin1String("page") &&
                    QUrl(url) == page) {
                    found = QUrl(target.value(QStringLiteral("webSocketDebuggerUrl")).toString());
                    return true;
                }
            }
            return process.state() == QProcess::NotRunning;
        },
        timeoutMs);
    if (!found)
        fail(QStringLiteral("no page target for %1 among [%2]; browser: %3")
                 .arg(page.toString(), seen.join(QStringLiteral(", ")), lastStderrLine()));
    return found;
}

std::optional<QJsonObject> HeadlessChromium::call(QWebSocket &socket, const QString &method,
                                                  const QJsonObject &params, int timeoutMs) {
    const int id = nextId++;
    const QJsonObject message{
        {QStringLiteral("id"), id}, {QStringLiteral("method"), method}, {QStringLiteral("params"), params}};
    socket.sendTextMessage(QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)));
    if (!waitUntil([&] { return replies.contains(id) || socket.state() != QAbstractSocket::ConnectedState; },
                   timeoutMs) ||
        !replies.contains(id)) {
        fail(QStringLiteral("%1 got no answer within %2 ms").arg(method).arg(timeoutMs));
        return std::nullopt;
    }
    const QJsonObject reply = replies.take(id);
    if (reply.contains(QStringLiteral("error"))) {
        fail(QStringLiteral("%1 failed: %2")
                 .arg(method, QString::fromUtf8(QJsonDocument(reply.value(QStringLiteral("error")).toObject())
                                                    .toJson(QJsonDocument::Compact))));
        return std::nullopt;
    }
    return reply.value(QStringLiteral("result")).toObject();
}

std::optional<QJsonValue> HeadlessChromium::evaluate(const QString &expression, int timeoutMs) {
    const std::optional<QJsonObject> result = call(pageSocket, QStringLiteral("Runtime.evaluate"),
                                                   {{QStringLiteral("expression"), expression},
                                                    {QStringLiteral("awaitPromise"), true},
                                                    {QStringLiteral("returnByValue"), true}},
                                                   timeoutMs);
    if (!result)
        return std::nullopt;
    if (result->contains(QStringLiteral("exceptionDetails"))) {
        fail(QStringLiteral("the page threw: %1")
                 .arg(result->value(QStringLiteral("exceptionDetails"))
                          .toObject()
                          .value(QStringLiteral("exception"))
                          .toObject()
                          .value(QStringLiteral("description"))
                          .toString()));
        return std::nullopt;
    }
    return result->value(QStringLiteral("result")).toObject().value(QStringLiteral("value"));
}

QList<qint64> HeadlessChromium::leftoverProcesses() const {
    // Every process the browser starts (renderers, the zygote, the crash handler, which
    // detaches from it) names the profile on its command line.
    QList<qint64> found;
    const QByteArray marker = profile.path().toUtf8();
    for (const QString &entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        bool numeric = false;
        const qint64 pid = entry.toLongLong(&numeric);
        if (!numeric)
            continue;
        QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(entry));
        if (cmdline.open(QIODevice::ReadOnly) && cmdline.readAll().contains(marker))
            found << pid;
    }
    return found;
}

bool HeadlessChromium::close(int timeoutMs) {
    pageSocket.abort();
    if (process.state() == QProcess::NotRunning)
        return waitForNoLeftovers(timeoutMs);
    // The polite way first, so that the browser ends its renderer and helper processes
    // itself; a signal if it does not listen.
    if (browserEndpoint.isValid()) {
        QWebSocket browser;
        keepReplies(browser, replies);
        browser.open(browserEndpoint);
        if (waitUntil([&] { return browser.state() == QAbstractSocket::ConnectedState; }, 2000))
            call(browser, QStringLiteral("Browser.close"), {}, 2000);
        browser.abort();
    }
    if (!waitUntil([this] { return process.state() == QProcess::NotRunning; }, timeoutMs)) {
        process.terminate();
        if (!waitUntil([this] { return process.state() == QProcess::NotRunning; }, timeoutMs)) {
            process.kill();
            if (!process.waitForFinished(5000))
                return fail(QStringLiteral("%1 (pid %2) did not end").arg(binary).arg(process.processId()));
        }
    }
    return waitForNoLeftovers(timeoutMs);
}

bool HeadlessChromium::waitForNoLeftovers(int timeoutMs) {
    if (waitUntil([this] { return leftoverProcesses().isEmpty(); }, timeoutMs))
        return true;
    QStringList pids;
    for (const qint64 pid : leftoverProcesses())
        pids << QString::number(pid);
    return fail(QStringLiteral("browser processes left behind: %1").arg(pids.join(u' ')));
}
