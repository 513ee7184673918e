// examples/pos.html, the demo POS page we hand to POS developers, served from this machine
// with the client module beside it as a developer serves the checkout, driven in headless
// Chromium the way a person uses it (fields filled, buttons clicked) against the real
// `teranocounter --headless` (MAIN_INTERFACE=TCP, TCP_IP=127.0.0.1), a fake kitchen printer
// and a fake KIS terminal on 127.0.0.1:5000. What counts is what the devices receive and
// what the page shows.
#include "common/cp949.h"
#include "devsim/printer.h"
#include "devsim/scriptedterminal.h"
#include "devsim/vendorscripts.h"
#include "headlesschromium.h"
#include "pageserver.h"
#include "serviceprocess.h"
#include "terminalframes.h"
#include "wait.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

namespace {

const QString demoPage = QStringLiteral(DEMO_PAGE);
const QString clientModule = QStringLiteral(CLIENT_MODULE);
const QString approval = QStringLiteral("승인 완료 1234");
const QByteArray paymentFrame("\x02"
                              "PAY\x03");

// A terminal answer as the client module gives it to the page.
QJsonObject moduleAnswer(const QString &text) {
    return QJsonObject{{QStringLiteral("data"), text},
                       {QStringLiteral("devicetype"), QStringLiteral("CAT")},
                       {QStringLiteral("devicename"), QStringLiteral("KIS7430")}};
}

} // namespace

class DemoPageTest : public QObject {
    Q_OBJECT

    devsim::ScriptedTerminal kis;
    devsim::Printer printer;
    ServiceProcess service;
    HeadlessChromium browser;
    PageServer site;

    // The KIS exchange of a payment: the ACK at once, the customer's approval 300 ms later.
    void scriptPayment() { kis.setScript(devsim::kisExchange(cp949::encode(approval).value(), 300)); }

    // Says once why the page cannot be read, not on every poll of a wait.
    std::optional<QJsonValue> evaluate(const QString &js) {
        const std::optional<QJsonValue> value = browser.evaluate(js);
        if (!value && browser.error() != lastWarning)
            qWarning("%s", qPrintable(lastWarning = browser.error()));
        return value;
    }
    QString lastWarning;

    // Sets a field as typing or choosing would, and returns the value the field then holds
    // (a <select> refuses a value it has no option for).
    QString fill(const QString &id, const QString &value) {
        const std::optional<QJsonValue> held = evaluate(
            QStringLiteral(
                "(() => { const field = document.getElementById(%1); field.value = %2;"
                " field.dispatchEvent(new Event('input', { bubbles: true }));"
                " field.dispatchEvent(new Event('change', { bubbles: true })); return field.value; })()")
                .arg(HeadlessChromium::jsString(id), HeadlessChromium::jsString(value)));
        return held ? held->toString() : QString();
    }

    bool click(const QString &id) {
        return evaluate(QStringLiteral("document.getElementById(%1).click(), true")
                            .arg(HeadlessChromium::jsString(id)))
            .has_value();
    }

    QString valueOf(const QString &id) {
        const std::optional<QJsonValue> value =
            evaluate(QStringLiteral("document.getElementById(%1).value").arg(HeadlessChromium::jsString(id)));
        return value ? value->toString() : QString();
    }

    QString textOf(const QString &selector) {
        const std::optional<QJsonValue> text =
            evaluate(QStringLiteral("document.querySelector(%1)?.textContent ?? null")
                         .arg(HeadlessChromium::jsString(selector)));
        return text ? text->toString() : QString();
    }

    int answerCount() {
        const std::optional<QJsonValue> count =
            evaluate(QStringLiteral("document.getElementById('answers').childElementCount"));
        return count ? count->toInt(-1) : -1;
    }

    // The answer the page shows newest, as the module hands it over.
    QJsonObject newestAnswer() {
        return jsonObject(textOf(QStringLiteral("#answers > :first-child .answer-raw")));
    }

    QString diagnosis() {
        return QStringLiteral("page state \"%1\", pages asked for: %2, service stderr: %3")
            .arg(textOf(QStringLiteral("#state")), site.requests().join(u' '),
                 service.stderrLines().join(u' '));
    }

private slots:
    void initTestCase() {
        QVERIFY2(QFileInfo::exists(demoPage), qPrintable(QStringLiteral("no demo page at ") + demoPage));
        QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use");
        QVERIFY2(kis.listen(5000), "cannot listen on 127.0.0.1:5000 for the fake KIS terminal");
        scriptPayment();
        QVERIFY2(printer.listen(), "cannot listen on loopback for the fake kitchen printer");

        QCOMPARE(service.runToEnd({"--set", "MAIN_INTERFACE=TCP", "--set", "TCP_IP=127.0.0.1"}), 0);
        QVERIFY2(service.start(), qPrintable(QStringLiteral("the service did not start: ") +
                                             service.stderrLines().join(u' ')));

        site.serveFile(QStringLiteral("/examples/pos.html"), demoPage, "text/html; charset=utf-8");
        site.serveFile(QStringLiteral("/clients/js/teranocounter.js"), clientModule,
                       "text/javascript; charset=utf-8");
        QVERIFY2(site.listen(), qPrintable(site.error()));
        QVERIFY2(browser.start(site.url(QStringLiteral("/examples/pos.html"))),
                 qPrintable(QStringLiteral("Chromium did not start: ") + browser.error()));
        const bool open = waitUntil(
            [&] {
                const QString state = textOf(QStringLiteral("#state"));
                // The page may not be ready to evaluate in at first: only a browser that has gone
                // ends the wait early.
                return state == QLatin1String("open") || state.startsWith(QLatin1String("closed")) ||
                       state.startsWith(QLatin1String("error")) || !browser.isRunning();
            },
            10000);
        QVERIFY2(open && textOf(QStringLiteral("#state")) == QLatin1String("open"),
                 qPrintable(QStringLiteral("the page did not connect: ") + diagnosis()));
        QCOMPARE(answerCount(), 0);
        // A page on this machine: the browser has nothing to ask, and the cashier is told nothing.
        QVERIFY(waitUntil([&] { return textOf(QStringLiteral("#lna-state")) == QLatin1String("not-needed"); },
                          5000));
        QCOMPARE(
            evaluate(QStringLiteral("document.getElementById('lna-help').hidden")).value_or(QJsonValue()),
            QJsonValue(true));
    }

    void kitchenOrderReachesThePrinterInCodePage949() {
        const QString order = QStringLiteral("김치찌개 2\n");
        QCOMPARE(fill(QStringLiteral("kitchen-ip"), QStringLiteral("127.0.0.1")),
                 QStringLiteral("127.0.0.1"));
        QCOMPARE(fill(QStringLiteral("kitchen-port"), QString::number(printer.port())),
                 QString::number(printer.port()));
        QCOMPARE(fill(QStringLiteral("kitchen-text"), order), order);
        QVERIFY(click(QStringLiteral("kitchen-send")));

        QVERIFY2(waitUntil([&] { return printer.closedCount() == 1; }, 5000),
                 qPrintable(QStringLiteral("the printer got no complete order; page says \"%1\"; %2")
                                .arg(textOf(QStringLiteral("#kitchen-status")), diagnosis())));
        QCOMPARE(printer.connections().size(), 1);
        QCOMPARE(printer.connections().first().received, cp949::encode(order).value());
    }

    void paymentReachesKisAndItsAnswerIsListed() {
        QCOMPARE(fill(QStringLiteral("pay-van"), QStringLiteral("KIS")), QStringLiteral("KIS"));
        QCOMPARE(valueOf(QStringLiteral("pay-type")), QStringLiteral("payment")); // as the page opens
        QCOMPARE(fill(QStringLiteral("pay-format"), QStringLiteral("hex")), QStringLiteral("hex"));
        QCOMPARE(fill(QStringLiteral("pay-bytes"), QStringLiteral("02 50 41 59 03")),
                 QStringLiteral("02 50 41 59 03"));
        QVERIFY(click(QStringLiteral("pay-send")));

        QVERIFY2(
            waitUntil([&] { return answerCount() != 0; }, 10000),
            qPrintable(QStringLiteral("no answer on the page; page says \"%1\"; KIS got %2 connection(s); %3")
                           .arg(textOf(QStringLiteral("#pay-status")))
                           .arg(kis.connections().size())
                           .arg(diagnosis())));
        QCOMPARE(kis.connections().size(), 1);
        QCOMPARE(kis.connections().first().received, paymentFrame);

        const QString shown = textOf(QStringLiteral("#answers > :first-child"));
        QVERIFY2(shown.contains(approval), qPrintable(shown));
        QVERIFY2(shown.contains(QLatin1String("KIS7430")), qPrintable(shown));
        QCOMPARE(newestAnswer(), moduleAnswer(approval));
        keepRunningFor(300); // a second answer to one payment would be a defect: give it time to show
        QCOMPARE(answerCount(), 1);
    }

    void slipPrintReachesKisInCodePage949() {
        const QString slip = QStringLiteral("영수증 재출력\n합계 12,000원\n");
        const QByteArray expected = cp949::encode(slip).value();
        // A print job ends with the terminal's first reply; an ACK gives the POS nothing.
        kis.setScript(
            {devsim::ScriptedTerminal::awaitBytes(expected.size()), devsim::ScriptedTerminal::reply("\x06")});
        QCOMPARE(fill(QStringLiteral("print-van"), QStringLiteral("KIS")), QStringLiteral("KIS"));
        QCOMPARE(fill(QStringLiteral("print-text"), slip), slip);
        QVERIFY(click(QStringLiteral("print-send")));

        QVERIFY2(
            waitUntil([&] { return kis.closedCount() == 2; }, 5000),
            qPrintable(QStringLiteral(
                           "the slip exchange did not end; page says \"%1\"; KIS got %2 connection(s); %3")
                           .arg(textOf(QStringLiteral("#print-status")))
                           .arg(kis.connections().size())
                           .arg(diagnosis())));
        QCOMPARE(kis.connections().at(1).received, expected);
        QCOMPARE(answerCount(), 1);
    }

    // The service stops on a raw non-ASCII character in a frame: Hangul typed into a string
    // field must leave the page as \u escapes and reach the service as the same Hangul.
    void hangulRequestTypeTravelsAsEscapes() {
        scriptPayment();
        QCOMPARE(fill(QStringLiteral("pay-type"), QStringLiteral("결제")), QStringLiteral("결제"));
        QVERIFY(click(QStringLiteral("pay-send")));

        QVERIFY2(waitUntil([&] { return answerCount() == 2; }, 10000),
                 qPrintable(QStringLiteral("no second answer; page says \"%1\"; %2")
                                .arg(textOf(QStringLiteral("#pay-status")), diagnosis())));
        QVERIFY(
            service.stdoutLines().contains(QStringLiteral(R"(TCP request: requesttype "결제", van "KIS")")));
        QCOMPARE(kis.connections().size(), 3);
        QCOMPARE(kis.connections().at(2).received, paymentFrame);
        QCOMPARE(newestAnswer(), moduleAnswer(approval));
    }

    // An emoji has no code page 949 form and would stop the service once the printer is
    // reached; the page refuses the order and says why instead.
    void kitchenOrderCodePage949LacksIsRefusedByThePage() {
        QCOMPARE(fill(QStringLiteral("kitchen-text"), QStringLiteral("김치찌개 🍲\n")),
                 QStringLiteral("김치찌개 🍲\n"));
        QVERIFY(click(QStringLiteral("kitchen-send")));
        const QString status = textOf(QStringLiteral("#kitchen-status"));
        QVERIFY2(status.contains(QStringLiteral("🍲")), qPrintable(status));
        keepRunningFor(1500); // the printer would be reached well within this
        QCOMPARE(printer.connections().size(), 1);
    }

    void serviceKeptRunning() {
        QVERIFY2(service.isRunning(),
                 qPrintable(QStringLiteral("the service stopped: ") + service.stderrLines().join(u' ')));
        QVERIFY2(service.stderrLines().filter(QStringLiteral("fatal")).isEmpty(),
                 qPrintable(service.stderrLines().join(u' ')));
        QCOMPARE(textOf(QStringLiteral("#state")), QStringLiteral("open"));
        QCOMPARE(service.stdoutLines().count(ServiceProcess::recvFired), 4);
    }

    void cleanupTestCase() { QVERIFY2(browser.close(), qPrintable(browser.error())); }
};

QTEST_GUILESS_MAIN(DemoPageTest)
#include "tst_demopage.moc"
