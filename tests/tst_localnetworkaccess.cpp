// A POS page hosted on a public HTTPS site, as most shops run it, in Debian's Chromium with
// Local Network Access: the browser blocks the page's socket to ws://127.0.0.1:49999/ until
// the enterprise policy `teranocounter --browser-policy` writes lets its origin through.
// The site is this test's own (a self-signed certificate made now); the browser is told to
// count it as public, as it would count a vendor's site. The policy goes into the real
// folder, /etc/chromium/policies/managed/, because that is the one the browser reads; the
// test puts back whatever was there before.
#include "common/cp949.h"
#include "devsim/printer.h"
#include "devsim/scriptedterminal.h"
#include "devsim/vendorscripts.h"
#include "headlesschromium.h"
#include "pageserver.h"
#include "serviceprocess.h"
#include "wait.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>
#include <unistd.h>

namespace {

const QString policyFolder = QStringLiteral("/etc/chromium/policies/managed");
const QString policyFile = policyFolder + QStringLiteral("/teranocounter.json");
const QString clientModule = QStringLiteral(CLIENT_MODULE);
const QString approval = QStringLiteral("승인 완료 1234");

// The site's pages (tests/pages): socket.html opens the gateway with the browser's own
// WebSocket and records what becomes of it; module.html uses the client module, keeps
// every answer event and connects only when the test says so, so that a reload can be made
// to miss an answer.
const QString pagesFolder = QStringLiteral(PAGES_FOLDER);

QJsonArray bytesOf(const QByteArray &bytes) {
    QJsonArray array;
    for (const char byte : bytes)
        array.append(static_cast<quint8>(byte));
    return array;
}

QByteArray readFile(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class LocalNetworkAccessTest : public QObject {
    Q_OBJECT

    PageServer site{PageServer::Scheme::Https};
    devsim::Printer printer;
    devsim::ScriptedTerminal kis;
    ServiceProcess service;
    // What was in the real policy file before the test, to be put back after it.
    std::optional<QByteArray> earlierPolicy;

    // Runs `teranocounter --browser-policy <arguments>` as a shop's technician would, with
    // the real folders; returns its exit status, its output in `out`.
    int browserPolicy(const QStringList &arguments, QByteArray *out = nullptr) {
        QByteArray err;
        const int status =
            service.runToEnd(QStringList{QStringLiteral("--browser-policy")} + arguments, out, &err);
        if (status != 0)
            qWarning("--browser-policy %s: exit %d: %s", qPrintable(arguments.join(u' ')), status,
                     err.constData());
        return status;
    }

    // Starts `browser` on `path` of the site, which the browser counts as a public site.
    bool startBrowser(HeadlessChromium &browser, const QString &path) {
        browser.extraArguments = {
            QStringLiteral("--ignore-certificate-errors"),
            QStringLiteral("--ip-address-space-overrides=127.0.0.1:%1=public").arg(site.port())};
        return browser.start(site.url(path));
    }

    // The plain page's record once its socket has opened or ended.
    QJsonObject settledPlainPage(HeadlessChromium &browser) {
        QJsonObject pos;
        waitUntil(
            [&] {
                const std::optional<QJsonValue> value = browser.evaluate(
                    QStringLiteral("window.pos ? {state: pos.state, opened: pos.opened} : null"));
                if (!value)
                    return true;
                pos = value->toObject();
                const QString state = pos.value(QStringLiteral("state")).toString();
                return !state.isEmpty() && state != QLatin1String("connecting") &&
                       state != QLatin1String("error");
            },
            10000);
        return pos;
    }

    bool moduleReady(HeadlessChromium &browser) {
        return waitUntil(
                   [&] {
                       return browser.evaluate(QStringLiteral("window.ready === true"))
                                  .value_or(QJsonValue())
                                  .toBool() ||
                              !browser.isRunning();
                   },
                   10000) &&
               browser.isRunning();
    }

    // Evaluates `expression` (a promise is awaited) and returns its value, or the error's
    // code when it rejects, as "rejected <code>".
    QJsonValue outcome(HeadlessChromium &browser, const QString &expression, int timeoutMs = 15000) {
        const std::optional<QJsonValue> value =
            browser.evaluate(QStringLiteral("(async () => { try { return await (%1); } catch (error) {"
                                            " return 'rejected ' + error.code + ': ' + error.message; } })()")
                                 .arg(expression),
                             timeoutMs);
        return value ? *value : QJsonValue(QStringLiteral("no value: ") + browser.error());
    }

    bool pageHasNoOpenSocket() {
        HeadlessChromium browser;
        if (!startBrowser(browser, QStringLiteral("/"))) {
            qWarning("Chromium did not start: %s", qPrintable(browser.error()));
            return false;
        }
        const QJsonObject pos = settledPlainPage(browser);
        const bool blocked = pos.value(QStringLiteral("state")).toString() == QLatin1String("closed 1006") &&
                             !pos.value(QStringLiteral("opened")).toBool();
        if (!blocked)
            qWarning("the page's socket: %s", QJsonDocument(pos).toJson(QJsonDocument::Compact).constData());
        return browser.close() && blocked;
    }

private slots:
    void initTestCase() {
        if (geteuid() != 0)
            QSKIP("writing the browser's policy folder takes root");
        QVERIFY2(QFileInfo::exists(HeadlessChromium::binary), "Debian's chromium is not installed");
        QVERIFY2(QFileInfo::exists(clientModule),
                 qPrintable(QStringLiteral("no client module at ") + clientModule));
        QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use");
        if (QFileInfo::exists(policyFile))
            earlierPolicy = readFile(policyFile);

        site.serveFile(QStringLiteral("/"), pagesFolder + QStringLiteral("/socket.html"),
                       "text/html; charset=utf-8");
        site.serveFile(QStringLiteral("/module.html"), pagesFolder + QStringLiteral("/module.html"),
                       "text/html; charset=utf-8");
        site.serveFile(QStringLiteral("/teranocounter.js"), clientModule, "text/javascript; charset=utf-8");
        QVERIFY2(site.listen(), qPrintable(site.error()));
        QVERIFY2(printer.listen(), "cannot listen on loopback for the simulated kitchen printer");
        QVERIFY2(kis.listen(5000), "cannot listen on 127.0.0.1:5000 for the simulated KIS terminal");
        kis.setScript(devsim::kisExchange(cp949::encode(approval).value(), 100));

        QCOMPARE(service.runToEnd({"--set", "MAIN_INTERFACE=TCP", "--set", "TCP_DEVICE=KIS", "--set",
                                   "TCP_IP=127.0.0.1", "--set", "HOLD_UNDELIVERED_ANSWERS=true"}),
                 0);
        QVERIFY2(service.start(), qPrintable(service.stderrLines().join(u' ')));
        QCOMPARE(browserPolicy({QStringLiteral("--remove")}), 0);
    }

    void cleanupTestCase() {
        if (geteuid() != 0)
            return;
        QCOMPARE(browserPolicy({QStringLiteral("--remove")}), 0);
        if (earlierPolicy) {
            QFile file(policyFile);
            QVERIFY(file.open(QIODevice::WriteOnly));
            QCOMPARE(file.write(*earlierPolicy), earlierPolicy->size());
        }
        QVERIFY2(service.isRunning(), qPrintable(service.stderrLines().join(u' ')));
    }

    void withoutPolicyThePublicPagesSocketNeverOpens() {
        QVERIFY(!QFileInfo::exists(policyFile));
        QVERIFY(pageHasNoOpenSocket());
        QVERIFY2(service.stdoutLines().isEmpty(), qPrintable(service.stdoutLines().join(u'\n')));
    }

    void thePolicyLetsThePageThroughAndItsOrderIsPrinted() {
        QByteArray out;
        QCOMPARE(browserPolicy({site.origin()}, &out), 0);
        const QJsonObject policy = QJsonDocument::fromJson(readFile(policyFile)).object();
        QCOMPARE(policy, (QJsonObject{{QStringLiteral("LocalNetworkAccessAllowedForUrls"),
                                       QJsonArray{site.origin()}}}));
        QVERIFY2(out.contains(policyFile.toUtf8()), out.constData());

        HeadlessChromium browser;
        QVERIFY2(startBrowser(browser, QStringLiteral("/")), qPrintable(browser.error()));
        QCOMPARE(settledPlainPage(browser).value(QStringLiteral("state")).toString(), QStringLiteral("open"));

        const QString order = QStringLiteral("주문: 김치찌개 2\n");
        const QJsonObject request{{QStringLiteral("requesttype"), QStringLiteral("kitchenPrint")},
                                  {QStringLiteral("data"), bytesOf(order.toUtf8())},
                                  {QStringLiteral("ip"), QStringLiteral("127.0.0.1")},
                                  {QStringLiteral("port"), printer.port()}};
        QVERIFY2(
            browser
                .evaluate(QStringLiteral("pos.send(%1), true")
                              .arg(QString::fromUtf8(QJsonDocument(request).toJson(QJsonDocument::Compact))))
                .has_value(),
            qPrintable(browser.error()));
        QVERIFY2(waitUntil([&] { return printer.closedCount() == 1; }, 5000),
                 qPrintable(service.stderrLines().join(u' ')));
        QCOMPARE(printer.connections().first().received, cp949::encode(order).value());
        QVERIFY2(browser.close(), qPrintable(browser.error()));
    }

    void afterRemovalThePageIsBlockedAgain() {
        QByteArray out;
        QCOMPARE(browserPolicy({QStringLiteral("--remove")}, &out), 0);
        QVERIFY(!QFileInfo::exists(policyFile));
        const qsizetype linesBefore = service.stdoutLines().size();
        QVERIFY(pageHasNoOpenSocket());
        QCOMPARE(service.stdoutLines().size(), linesBefore);
    }

    void theModuleSaysTheBrowserBlockedIt() {
        QVERIFY(!QFileInfo::exists(policyFile));
        HeadlessChromium browser;
        QVERIFY2(startBrowser(browser, QStringLiteral("/module.html")), qPrintable(browser.error()));
        QVERIFY2(moduleReady(browser), qPrintable(browser.error()));
        const QString connected =
            outcome(browser, QStringLiteral("counter.connect().then(() => 'open')")).toString();
        QVERIFY2(connected.startsWith(QLatin1String("rejected LOCAL_NETWORK_ACCESS_BLOCKED: ")),
                 qPrintable(connected));
        const QString access =
            outcome(browser, QStringLiteral("TeranoCounter.localNetworkAccess()")).toString();
        QVERIFY2(access == QLatin1String("prompt") || access == QLatin1String("denied"), qPrintable(access));
        QVERIFY2(browser.close(), qPrintable(browser.error()));
    }

    void withThePolicyTheModulePrintsAndPays() {
        QCOMPARE(browserPolicy({site.origin()}), 0);
        HeadlessChromium browser;
        QVERIFY2(startBrowser(browser, QStringLiteral("/module.html")), qPrintable(browser.error()));
        QVERIFY2(moduleReady(browser), qPrintable(browser.error()));
        QCOMPARE(outcome(browser, QStringLiteral("TeranoCounter.localNetworkAccess()")).toString(),
                 QStringLiteral("granted"));
        QCOMPARE(outcome(browser, QStringLiteral("counter.connect().then(() => 'open')")).toString(),
                 QStringLiteral("open"));

        const QString order = QStringLiteral("된장찌개 1\n공깃밥 2\n");
        const qsizetype printed = printer.closedCount();
        QVERIFY2(
            browser
                .evaluate(QStringLiteral(
                              "counter.kitchenPrint({ip: '127.0.0.1', port: %1, text: %2}).then(() => true)")
                              .arg(printer.port())
                              .arg(HeadlessChromium::jsString(order)))
                .has_value(),
            qPrintable(browser.error()));
        QVERIFY2(waitUntil([&] { return printer.closedCount() == printed + 1; }, 5000),
                 qPrintable(service.stderrLines().join(u' ')));
        QCOMPARE(printer.connections().last().received, cp949::encode(order).value());

        const QByteArray frame("\x02PAY0001000\x03");
        const qsizetype exchanges = kis.connections().size();
        const QJsonValue answer = outcome(
            browser,
            QStringLiteral("counter.payment({van: 'KIS', bytes: %1})")
                .arg(QString::fromUtf8(QJsonDocument(bytesOf(frame)).toJson(QJsonDocument::Compact))));
        QCOMPARE(answer.toObject(), (QJsonObject{{QStringLiteral("data"), approval},
                                                 {QStringLiteral("devicetype"), QStringLiteral("CAT")},
                                                 {QStringLiteral("devicename"), QStringLiteral("KIS7430")}}));
        QCOMPARE(kis.connections().size(), exchanges + 1);
        QCOMPARE(kis.connections().last().received, frame);
        QVERIFY2(browser.close(), qPrintable(browser.error()));
    }

    // The cashier reloads the page while the customer is at the terminal: the answer finds no
    // page, is held, and reaches the reloaded page as an "answer" event when it connects.
    void anAnswerMissedByAReloadArrivesAsAnEvent() {
        QVERIFY(QFileInfo::exists(policyFile));
        kis.setScript(devsim::kisExchange(cp949::encode(approval).value(), 1500));
        HeadlessChromium browser;
        QVERIFY2(startBrowser(browser, QStringLiteral("/module.html")), qPrintable(browser.error()));
        QVERIFY2(moduleReady(browser), qPrintable(browser.error()));
        QCOMPARE(outcome(browser, QStringLiteral("counter.connect().then(() => 'open')")).toString(),
                 QStringLiteral("open"));
        const qsizetype exchanges = kis.connections().size();
        QVERIFY(browser
                    .evaluate(QStringLiteral(
                        "counter.payment({van: 'KIS', bytes: [2, 80, 65, 89, 3]}).catch(() => {}),"
                        " true"))
                    .has_value());
        QVERIFY2(waitUntil([&] { return kis.connections().size() == exchanges + 1; }, 5000),
                 "the payment did not reach the terminal");
        QVERIFY(browser.evaluate(QStringLiteral("location.reload(), true")).has_value());
        QVERIFY2(waitUntil(
                     [&] {
                         return browser.evaluate(QStringLiteral("window.ready === true"))
                             .value_or(QJsonValue())
                             .toBool();
                     },
                     10000),
                 qPrintable(browser.error()));

        // The terminal answers while the reloaded page has no connection: the answer waits.
        QVERIFY2(waitUntil(
                     [&] {
                         QByteArray out;
                         return service.runToEnd({QStringLiteral("--pending")}, &out) == 0 &&
                                out.contains("answer");
                     },
                     20000),
                 "the answer was not held");
        QCOMPARE(outcome(browser, QStringLiteral("counter.connect().then(() => 'open')")).toString(),
                 QStringLiteral("open"));
        QJsonArray answers;
        QVERIFY2(waitUntil(
                     [&] {
                         answers =
                             browser.evaluate(QStringLiteral("answers")).value_or(QJsonValue()).toArray();
                         return !answers.isEmpty();
                     },
                     5000),
                 "no answer event on the reloaded page");
        QCOMPARE(answers.size(), 1);
        QCOMPARE(answers.first().toObject().value(QStringLiteral("data")).toString(), approval);
        QVERIFY2(browser.close(), qPrintable(browser.error()));
    }
};

QTEST_GUILESS_MAIN(LocalNetworkAccessTest)
#include "tst_localnetworkaccess.moc"
