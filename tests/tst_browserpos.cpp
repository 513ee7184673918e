// The real `teranocounter --headless` with MAIN_INTERFACE=TCP and TCP_IP=127.0.0.1, a fake
// KIS terminal on 127.0.0.1:5000, and the POS page running in headless Chromium: what a
// shop's browser receives, decoded by the browser itself.
#include "common/cp949.h"
#include "devsim/scriptedterminal.h"
#include "devsim/vendorscripts.h"
#include "headlesschromium.h"
#include "serviceprocess.h"
#include "terminalframes.h"
#include "wait.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

namespace {

// A POS page as a shop runs it: it connects to the service, sends one payment request
// once the connection is open, and keeps every message it receives, as received.
QByteArray posPage(const QString &gateway, const QByteArray &request) {
    QStringList values;
    for (const char c : request)
        values << QString::number(static_cast<unsigned char>(c));
    return QStringLiteral(R"(<!doctype html>
<html><head><meta charset="utf-8"><title>POS</title></head><body>
<script>
window.pos = { state: "connecting", received: [] };
const socket = new WebSocket("%2");
socket.onopen = () => {
  pos.state = "open";
  socket.send(JSON.stringify({ requesttype: "payment", van: "KIS", data: [%1] }));
};
socket.onmessage = (event) => {
  pos.received.push(typeof event.data === "string" ? event.data : { binary: String(event.data) });
};
socket.onerror = () => { pos.state = "error"; };
socket.onclose = (event) => { pos.state = "closed " + event.code; };
</script>
</body></html>
)")
        .arg(values.join(u','), gateway)
        .toUtf8();
}

// Two POS connections in one browser, A and B, as two tabs of the shop's POS would be:
// each opens when the test says so and sends one request; every message and the close
// event (code, and whether the closing handshake was clean) are kept.
QByteArray twoTabsPage(const QString &gateway, const QByteArray &paymentOfB) {
    QStringList values;
    for (const char c : paymentOfB)
        values << QString::number(static_cast<unsigned char>(c));
    return QStringLiteral(R"(<!doctype html>
<html><head><meta charset="utf-8"><title>POS</title></head><body>
<script>
window.pos = {};
function openTab(name, request) {
  const tab = pos[name] = { state: "connecting", received: [] };
  const socket = new WebSocket("%2");
  socket.onopen = () => { tab.state = "open"; socket.send(JSON.stringify(request)); };
  socket.onmessage = (event) => { tab.received.push(String(event.data)); };
  socket.onclose = (event) => { tab.state = "closed " + event.code + (event.wasClean ? " clean" : " unclean"); };
}
window.openA = () => openTab("a", { requesttype: "noop", van: "none", data: [] });
window.openB = () => openTab("b", { requesttype: "payment", van: "KIS", data: [%1] });
</script>
</body></html>
)")
        .arg(values.join(u','), gateway)
        .toUtf8();
}

} // namespace

class BrowserPosTest : public QObject {
    Q_OBJECT

private slots:
    void kisAnswerWithHangulReachesThePosPageInChromium() {
        QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use");
        const QString text = QStringLiteral("승인 완료 1234");
        const QByteArray request("\x02"
                                 "PAY0001000\x03",
                                 12);
        devsim::ScriptedTerminal kis;
        QVERIFY2(kis.listen(5000), "cannot listen on 127.0.0.1:5000 for the fake KIS terminal");
        kis.setScript(devsim::kisExchange(cp949::encode(text).value(), 300));

        ServiceProcess service;
        QCOMPARE(service.runToEnd({"--set", "MAIN_INTERFACE=TCP", "--set", "TCP_IP=127.0.0.1"}), 0);
        QVERIFY2(service.start(), qPrintable(QStringLiteral("the service did not start: ") +
                                             service.stderrLines().join(u' ')));

        QTemporaryDir site;
        QVERIFY(site.isValid());
        QFile page(site.filePath(QStringLiteral("pos.html")));
        QVERIFY(page.open(QIODevice::WriteOnly));
        page.write(posPage(QStringLiteral("ws://127.0.0.1:%1/").arg(ServiceProcess::gatewayPort), request));
        page.close();

        HeadlessChromium browser;
        QVERIFY2(browser.start(QUrl::fromLocalFile(page.fileName())), qPrintable(browser.error()));

        // The page's own record, { state, received }, as the browser holds it.
        QJsonObject pos;
        const auto snapshot = [&] {
            const std::optional<QJsonValue> value = browser.evaluate(QStringLiteral("window.pos || null"));
            pos = value ? value->toObject() : QJsonObject();
            return value.has_value();
        };
        const auto socketEnded = [&] {
            const QString state = pos.value(QStringLiteral("state")).toString();
            return state == QLatin1String("error") || state.startsWith(QLatin1String("closed"));
        };
        const bool answered = waitUntil(
            [&] {
                return !snapshot() || !pos.value(QStringLiteral("received")).toArray().isEmpty() ||
                       socketEnded();
            },
            8000);
        QVERIFY2(browser.error().isEmpty(), qPrintable(browser.error()));
        QVERIFY2(answered && !pos.value(QStringLiteral("received")).toArray().isEmpty(),
                 qPrintable(QStringLiteral("the page received nothing; its socket is ") +
                            pos.value(QStringLiteral("state")).toString()));
        keepRunningFor(300); // a second answer would be a defect: give it the time to show
        QVERIFY2(snapshot(), qPrintable(browser.error()));

        const QJsonArray received = pos.value(QStringLiteral("received")).toArray();
        QVERIFY2(received.size() == 1, qPrintable(QStringLiteral("the page received %1 messages (socket %2)")
                                                      .arg(received.size())
                                                      .arg(pos.value(QStringLiteral("state")).toString())));
        QVERIFY2(received.first().isString(), "the answer reached the page as a binary frame");
        const QJsonObject answer = jsonObject(received.first().toString());
        QCOMPARE(answer.value(QStringLiteral("response")).toObject().value(QStringLiteral("data")).toString(),
                 text);
        QCOMPARE(answer, expectedAnswer(text, QStringLiteral("KIS7430")));
        QCOMPARE(pos.value(QStringLiteral("state")).toString(), QStringLiteral("open"));

        QCOMPARE(kis.connections().size(), 1);
        QCOMPARE(kis.connections().first().received, request);
        QVERIFY(service.stdoutLines().contains(ServiceProcess::recvFired));
        QVERIFY(service.isRunning());

        QVERIFY2(browser.close(), qPrintable(browser.error()));
    }

    void aDisplacedPageAnswersTheCloseFrameAndGoes() {
        QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use");
        const QString text = QStringLiteral("승인 완료 1234");
        devsim::ScriptedTerminal kis;
        QVERIFY2(kis.listen(5000), "cannot listen on 127.0.0.1:5000 for the fake KIS terminal");
        kis.setScript(devsim::kisExchange(cp949::encode(text).value(), 300));
        ServiceProcess service;
        QCOMPARE(service.runToEnd({"--set", "MAIN_INTERFACE=TCP", "--set", "TCP_IP=127.0.0.1"}), 0);
        QVERIFY(service.start());

        QTemporaryDir site;
        QFile page(site.filePath(QStringLiteral("pos.html")));
        QVERIFY(page.open(QIODevice::WriteOnly));
        page.write(twoTabsPage(QStringLiteral("ws://127.0.0.1:%1/").arg(ServiceProcess::gatewayPort),
                               QByteArray("\x02PAY0001000\x03")));
        page.close();
        HeadlessChromium browser;
        QVERIFY2(browser.start(QUrl::fromLocalFile(page.fileName())), qPrintable(browser.error()));
        QJsonObject pos;
        const auto snapshot = [&] {
            const std::optional<QJsonValue> value = browser.evaluate(QStringLiteral("window.pos"));
            pos = value ? value->toObject() : QJsonObject();
            return value.has_value();
        };
        const auto tab = [&](const char *name) { return pos.value(QLatin1String(name)).toObject(); };

        QVERIFY(waitUntil(
            [&] {
                return browser.evaluate(QStringLiteral("typeof window.openA")) ==
                       QJsonValue(QStringLiteral("function"));
            },
            5000));
        // A speaks first and is the POS; then B speaks and takes over.
        QVERIFY2(browser.evaluate(QStringLiteral("openA(), true")), qPrintable(browser.error()));
        QVERIFY(service.waitForStdoutLine(ServiceProcess::recvFired, 5000));
        QVERIFY2(browser.evaluate(QStringLiteral("openB(), true")), qPrintable(browser.error()));
        QVERIFY(
            waitUntil([&] { return snapshot() && !tab("b").value("received").toArray().isEmpty(); }, 8000));
        // A got the close frame, answered it and is gone, cleanly, with the code the
        // service sent; B got the answer, A nothing.
        QVERIFY(waitUntil(
            [&] { return snapshot() && tab("a").value("state").toString().startsWith("closed"); }, 3000));
        QCOMPARE(tab("a").value("state").toString(), QStringLiteral("closed 1000 clean"));
        QCOMPARE(tab("a").value("received").toArray().size(), 0);
        QCOMPARE(tab("b").value("state").toString(), QStringLiteral("open"));
        const QJsonArray received = tab("b").value("received").toArray();
        QCOMPARE(received.size(), 1);
        QCOMPARE(jsonObject(received.first().toString()), expectedAnswer(text, QStringLiteral("KIS7430")));
        QVERIFY(service.isRunning());
        QVERIFY2(browser.close(), qPrintable(browser.error()));
    }
};

QTEST_GUILESS_MAIN(BrowserPosTest)
#include "tst_browserpos.moc"
