// The real `teranocounter --headless` with WEBSOCKET_PIN_FIRST_ORIGIN=true and POS pages
// served over HTTP to headless Chromium: the first site's page pins itself, and a page from
// a second site is then refused by the browser's own WebSocket client.
#include "headlesschromium.h"
#include "serviceprocess.h"
#include "wait.h"

#include <QJsonObject>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

namespace {

// The page every site serves: it opens the gateway and records what becomes of its socket.
const QByteArray posPage = QByteArrayLiteral(R"(<!doctype html>
<html><head><meta charset="utf-8"><title>POS</title></head><body>
<script>
window.pos = { state: "connecting", opened: false };
const socket = new WebSocket("ws://127.0.0.1:49999/");
socket.onopen = () => { pos.state = "open"; pos.opened = true; };
socket.onerror = () => { pos.state = "error"; };
socket.onclose = (event) => { pos.state = "closed " + event.code; };
</script>
</body></html>
)");

// A web server for one site on loopback: "/" is the POS page, anything else 404.
class Site : public QObject {
public:
    bool listen() {
        connect(&server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = server.nextPendingConnection()) {
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
                connect(socket, &QTcpSocket::readyRead, socket, [socket] {
                    QByteArray &head = pending[socket];
                    head += socket->readAll();
                    if (!head.contains("\r\n\r\n"))
                        return;
                    const bool root = head.startsWith("GET / ") || head.startsWith("GET /? ");
                    const QByteArray body = root ? posPage : QByteArray("not found\n");
                    socket->write((root ? "HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=utf-8\r\n"
                                        : "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\n") +
                                  QByteArray("Content-Length: ") + QByteArray::number(body.size()) +
                                  "\r\nConnection: close\r\n\r\n" + body);
                    pending.remove(socket);
                    socket->disconnectFromHost();
                });
            }
        });
        return server.listen(QHostAddress::LocalHost);
    }
    QUrl url() const { return QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(server.serverPort())); }
    QString origin() const { return QStringLiteral("http://127.0.0.1:%1").arg(server.serverPort()); }

private:
    QTcpServer server;
    static inline QHash<QTcpSocket *, QByteArray> pending;
};

// Waits until the page's socket has opened or ended, and returns the page's record.
QJsonObject settledState(HeadlessChromium &browser) {
    QJsonObject pos;
    waitUntil(
        [&] {
            const std::optional<QJsonValue> value = browser.evaluate(QStringLiteral("window.pos || null"));
            if (!value)
                return true;
            pos = value->toObject(); // empty until the page's script has run
            const QString state = pos.value(QStringLiteral("state")).toString();
            return !state.isEmpty() && state != QLatin1String("connecting");
        },
        10000);
    return pos;
}

} // namespace

class BrowserOriginTest : public QObject {
    Q_OBJECT

private slots:
    void secondSitesPageIsRefusedOnceTheFirstIsPinned() {
        QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use");
        Site shop, other;
        QVERIFY(shop.listen());
        QVERIFY(other.listen());

        ServiceProcess service;
        QCOMPARE(service.runToEnd({"--set", "WEBSOCKET_PIN_FIRST_ORIGIN=true"}), 0);
        QVERIFY(service.start());

        {
            HeadlessChromium browser;
            QVERIFY2(browser.start(shop.url()), qPrintable(browser.error()));
            const QJsonObject pos = settledState(browser);
            QVERIFY2(browser.error().isEmpty(), qPrintable(browser.error()));
            QCOMPARE(pos.value(QStringLiteral("state")).toString(), QStringLiteral("open"));
            QVERIFY(service.waitForStdoutLine(
                QStringLiteral("WEBSOCKET_PIN_FIRST_ORIGIN: pinned %1, the only origin allowed from now on "
                               "(WEBSOCKET_ALLOWED_ORIGINS)")
                    .arg(shop.origin()),
                5000));
            QVERIFY2(browser.close(), qPrintable(browser.error()));
        }

        HeadlessChromium browser;
        QVERIFY2(browser.start(other.url()), qPrintable(browser.error()));
        QJsonObject pos = settledState(browser);
        QVERIFY2(browser.error().isEmpty(), qPrintable(browser.error()));
        // A browser reports a refused handshake as an error, then a close with 1006: the page
        // never has an open socket.
        QVERIFY(waitUntil(
            [&] {
                pos = browser.evaluate(QStringLiteral("window.pos")).value_or(QJsonValue()).toObject();
                return pos.value(QStringLiteral("state")).toString().startsWith(QLatin1String("closed"));
            },
            5000));
        QCOMPARE(pos.value(QStringLiteral("state")).toString(), QStringLiteral("closed 1006"));
        QCOMPARE(pos.value(QStringLiteral("opened")).toBool(), false);

        QVERIFY(waitUntil([&] { return service.stdoutLines().size() >= 2; }, 5000));
        static const QRegularExpression refused(QStringLiteral(
            "^WebSocket handshake refused at \\S+: origin (\\S+) is not in WEBSOCKET_ALLOWED_ORIGINS$"));
        const QRegularExpressionMatch match = refused.match(service.stdoutLines().at(1));
        QVERIFY2(match.hasMatch(), qPrintable(service.stdoutLines().at(1)));
        QCOMPARE(match.captured(1), other.origin());
        QVERIFY(service.isRunning());
        QVERIFY2(browser.close(), qPrintable(browser.error()));
    }
};

QTEST_GUILESS_MAIN(BrowserOriginTest)
#include "tst_browserorigin.moc"
