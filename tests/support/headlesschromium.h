#pragma once

#include <QHash>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QProcess>
#include <QTemporaryDir>
#include <QUrl>
#include <QWebSocket>
#include <optional>

// Debian's Chromium, headless, with a fresh profile, showing one page that the test drives
// over the DevTools protocol: the POS page as a shop's browser really runs it, with the
// browser's own WebSocket client, its own UTF-8 decoding and its own event loop.
class HeadlessChromium {
public:
    static inline const QString binary = QStringLiteral("/usr/bin/chromium");

    // `text` as a JavaScript string literal, for expressions given to evaluate().
    static QString jsString(const QString &text);

    HeadlessChromium();
    ~HeadlessChromium();

    // Added to the browser's command line before the page, for what a test needs of it
    // (--ip-address-space-overrides, --ignore-certificate-errors).
    QStringList extraArguments;

    // Starts the browser on `page` and attaches to that page. On failure, error() says
    // why in one line.
    bool start(const QUrl &page, int timeoutMs = 30000);

    // Evaluates `expression` in the page (a promise is awaited) and returns its value as
    // JSON; nothing on failure, with error() saying why.
    std::optional<QJsonValue> evaluate(const QString &expression, int timeoutMs = 5000);

    // Closes the browser and waits until it and every process it started have ended;
    // true when they have, else error() names what is left.
    bool close(int timeoutMs = 10000);
    // The processes of this browser still alive (zombies excluded).
    QList<qint64> leftoverProcesses() const;
    bool isRunning() const { return process.state() != QProcess::NotRunning; }
    qint64 processId() const { return process.processId(); }
    QString error() const { return lastError; }

private:
    bool fail(const QString &why);
    bool waitForNoLeftovers(int timeoutMs);
    QString lastStderrLine();
    std::optional<quint16> waitForDevToolsPort(int timeoutMs, QString *browserPath);
    std::optional<QUrl> waitForPageTarget(quint16 port, const QUrl &page, int timeoutMs);
    std::optional<QJsonObject> call(QWebSocket &socket, const QString &method, const QJsonObject &params,
                                    int timeoutMs);

    QTemporaryDir profile;
    QProcess process;
    QByteArray stderrBuffer;
    QWebSocket pageSocket;
    QUrl browserEndpoint;
    QHash<int, QJsonObject> replies;
    int nextId = 1;
    QString lastError;
};
