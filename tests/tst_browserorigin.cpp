// The real `teranocounter --headless` with WEBSOCKET_PIN_FIRST_ORIGIN=true and POS pages
// served over HTTP to headless Chromium: the first site's page pins itself, and a page from
// a second site is then refused by the browser's own WebSocket client.
#include "headlesschromium.h"
#include "pageserver.h"
#include "serviceprocess.h"
#include "wait.h"

#include <QJsonObject>
#include <QRegularExpression>
#include <QtTest>

namespace {

// The page every site serves (tests/pages/socket.html): it opens the gateway and records
// what becomes of its socket.
const QString socketPage = QStringLiteral(PAGES_FOLDER "/socket.html");

// A web site on loopback whose "/" is that page.
bool listen(PageServer &site) {
    site.serveFile(QStringLiteral("/"), socketPage, "text/html; charset=utf-8");
    return site.listen();
}

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
        PageServer shop, other;
        QVERIFY2(listen(shop), qPrintable(shop.error()));
        QVERIFY2(listen(other), qPrintable(other.error()));

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
