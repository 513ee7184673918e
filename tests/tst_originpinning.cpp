// The real `teranocounter --headless` locked down: which pages' handshakes it lets in, what
// it prints about the others, how it pins the first POS, and which kitchen printers it
// will connect to at all.
#include "devsim/printer.h"
#include "devsim/switchedoffdevice.h"
#include "posclient.h"
#include "serviceprocess.h"
#include "wait.h"

#include <QFile>
#include <QRegularExpression>
#include <QWebSocket>
#include <QtTest>

namespace {

constexpr quint16 gatewayPort = ServiceProcess::gatewayPort;

QByteArray handshakeFrom(const QByteArray &origin) {
    return rawHandshake(gatewayPort, "/", "Origin: " + origin + "\r\n");
}

bool isRefusalLine(const QString &line, const QString &origin) {
    static const QRegularExpression form(QStringLiteral(
        R"(^WebSocket handshake refused at \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(Z|[+-]\d\d:\d\d): origin (\S+) is not in WEBSOCKET_ALLOWED_ORIGINS$)"));
    const QRegularExpressionMatch match = form.match(line);
    return match.hasMatch() && match.captured(2) == origin;
}

QStringList linesAbout(const QStringList &lines, const QString &part) {
    QStringList found;
    for (const QString &line : lines)
        if (line.contains(part))
            found << line;
    return found;
}

QString settingsText(const ServiceProcess &service) {
    QFile file(service.settingsFile());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll());
}

QString pendingText(ServiceProcess &service) {
    QByteArray out;
    service.runToEnd({"--pending"}, &out);
    return QString::fromUtf8(out);
}

} // namespace

class OriginPinningTest : public QObject {
    Q_OBJECT
private slots:
    void init() { QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use"); }

    void pinnedOriginIsLetInAndOthersGet403WithOneLineAMinute() {
        ServiceProcess service;
        QByteArray out;
        QCOMPARE(service.runToEnd({"--allow-origin", "http://192.168.0.20:8080"}, &out), 0);
        QCOMPARE(out, QByteArray("WEBSOCKET_ALLOWED_ORIGINS=http://192.168.0.20:8080\n"));
        QVERIFY(service.start());

        QVERIFY(handshakeFrom("http://192.168.0.20:8080").startsWith("HTTP/1.1 101"));
        QVERIFY(handshakeFrom("http://ad.example").startsWith("HTTP/1.1 403"));
        QVERIFY(waitUntil([&] { return !service.stdoutLines().isEmpty(); }, 5000));
        QVERIFY2(isRefusalLine(service.stdoutLines().first(), QStringLiteral("http://ad.example")),
                 qPrintable(service.stdoutLines().first()));

        // The same page again within the minute: refused, and nothing more printed. Another
        // origin refused after it does get its line, which shows the second refusal was
        // judged by then.
        QVERIFY(handshakeFrom("http://ad.example").startsWith("HTTP/1.1 403"));
        QVERIFY(handshakeFrom("https://tracker.example").startsWith("HTTP/1.1 403"));
        QVERIFY(waitUntil(
            [&] {
                const QStringList lines = service.stdoutLines();
                return !lines.isEmpty() &&
                       isRefusalLine(lines.last(), QStringLiteral("https://tracker.example"));
            },
            5000));
        const QStringList lines = service.stdoutLines();
        QCOMPARE(lines.size(), 2);
        QVERIFY2(isRefusalLine(lines[1], QStringLiteral("https://tracker.example")), qPrintable(lines[1]));

        QVERIFY(rawHandshake(gatewayPort, "/").startsWith("HTTP/1.1 101")); // no Origin: not a browser
        QVERIFY(handshakeFrom("http://192.168.0.20:8080").startsWith("HTTP/1.1 101"));
        QCOMPARE(service.stdoutLines().size(), 2);
        QVERIFY(service.stderrLines().isEmpty());
    }

    void allowOriginFromATerminalActsOnTheRunningService() {
        ServiceProcess service;
        QVERIFY(service.start());
        QVERIFY(handshakeFrom("http://ad.example").startsWith("HTTP/1.1 101")); // nothing listed yet

        QByteArray out;
        QCOMPARE(service.runToEnd({"--allow-origin", "http://pos.local"}, &out), 0);
        QVERIFY(handshakeFrom("http://ad.example").startsWith("HTTP/1.1 403"));
        QVERIFY(handshakeFrom("http://pos.local").startsWith("HTTP/1.1 101"));

        QCOMPARE(service.runToEnd({"--allow-origin", ""}, &out), 0);
        QCOMPARE(out, QByteArray("WEBSOCKET_ALLOWED_ORIGINS is not set: every page may connect\n"));
        QVERIFY(!settingsText(service).contains(QStringLiteral("WEBSOCKET_ALLOWED_ORIGINS")));
        QVERIFY(handshakeFrom("http://ad.example").startsWith("HTTP/1.1 101"));

        QByteArray err;
        QCOMPARE(service.runToEnd({"--allow-origin", "http://pos.local/"}, &out, &err), 2);
        QVERIFY2(err.startsWith("teranocounter: --allow-origin: ") && err.count('\n') == 1, err.constData());
        QVERIFY(!settingsText(service).contains(QStringLiteral("WEBSOCKET_ALLOWED_ORIGINS")));
    }

    void originsThatNoBrowserSendsAreRefusedAndNullIsWarnedOf() {
        ServiceProcess service;
        QByteArray out, err;
        QCOMPARE(service.runToEnd({"--set", "WEBSOCKET_ALLOWED_ORIGINS=http://x/"}, &out, &err), 2);
        QVERIFY2(err.startsWith("teranocounter: --set WEBSOCKET_ALLOWED_ORIGINS: ") && err.count('\n') == 1,
                 err.constData());
        QVERIFY(!settingsText(service).contains(QStringLiteral("WEBSOCKET_ALLOWED_ORIGINS")));

        const QByteArray warning =
            "teranocounter: warning: WEBSOCKET_ALLOWED_ORIGINS lists null: local files and "
            "the sandboxed frames of any site send the origin null, so a page of any site "
            "can connect\n";
        QCOMPARE(service.runToEnd({"--allow-origin", "null"}, &out, &err), 0);
        QCOMPARE(err, warning);
        QCOMPARE(out, QByteArray("WEBSOCKET_ALLOWED_ORIGINS=null\n"));
        QVERIFY(service.start());
        QVERIFY(service.waitForStdoutLine(QString::fromUtf8(warning.mid(24).chopped(1)), 3000));
        QCOMPARE(service.stderrLines(), QStringList());
    }

    void pinFirstOriginPinsTheFirstPageAndKeepsItAcrossARestart() {
        ServiceProcess service;
        service.set(QStringLiteral("WEBSOCKET_PIN_FIRST_ORIGIN"), QStringLiteral("true"));
        QVERIFY(service.start());

        // A client that sends no Origin is not a browser page: nothing to pin.
        QVERIFY(rawHandshake(gatewayPort, "/").startsWith("HTTP/1.1 101"));
        QVERIFY(handshakeFrom("http://127.0.0.1:8080").startsWith("HTTP/1.1 101"));
        QVERIFY(service.waitForStdoutLine(
            QStringLiteral("WEBSOCKET_PIN_FIRST_ORIGIN: pinned http://127.0.0.1:8080, the only origin "
                           "allowed from now on (WEBSOCKET_ALLOWED_ORIGINS)"),
            5000));
        QVERIFY2(
            settingsText(service).contains(QStringLiteral("WEBSOCKET_ALLOWED_ORIGINS=http://127.0.0.1:8080")),
            qPrintable(settingsText(service)));
        QVERIFY(handshakeFrom("http://localhost:8080").startsWith("HTTP/1.1 403"));
        QVERIFY(handshakeFrom("http://127.0.0.1:8080").startsWith("HTTP/1.1 101"));

        service.killHard();
        QVERIFY(service.start());
        QVERIFY(handshakeFrom("http://localhost:8080").startsWith("HTTP/1.1 403"));
        QVERIFY(handshakeFrom("http://127.0.0.1:8080").startsWith("HTTP/1.1 101"));
        QVERIFY(rawHandshake(gatewayPort, "/").startsWith("HTTP/1.1 101"));
        QByteArray out;
        QCOMPARE(service.runToEnd({"--settings"}, &out), 0);
        QVERIFY2(out.contains("WEBSOCKET_ALLOWED_ORIGINS=http://127.0.0.1:8080\n"), out.constData());
    }

    void kitchenOrdersGoOnlyToListedPrinters() {
        // Printers on loopback addresses: one listed with its port, one on the same address
        // and another port, one listed as an address (any port), one inside a listed range
        // and one outside it.
        devsim::Printer withPort, otherPort, anyPort, inRange, outOfRange;
        QVERIFY(withPort.listen(0, QHostAddress(QStringLiteral("127.0.0.1"))));
        QVERIFY(otherPort.listen(0, QHostAddress(QStringLiteral("127.0.0.1"))));
        QVERIFY(anyPort.listen(0, QHostAddress(QStringLiteral("127.0.0.3"))));
        QVERIFY(inRange.listen(0, QHostAddress(QStringLiteral("127.0.2.7"))));
        QVERIFY(outOfRange.listen(0, QHostAddress(QStringLiteral("127.0.3.7"))));

        ServiceProcess service;
        service.set(QStringLiteral("KITCHEN_ALLOWED_PRINTERS"),
                    QStringLiteral("127.0.0.1:%1, 127.0.0.3, 127.0.2.0/24").arg(withPort.port()));
        PosClient pos;
        QVERIFY(service.start());
        QVERIFY(pos.open(gatewayPort));

        const QByteArray order("ORDER 7\n");
        const QString text = QString::fromLatin1(order);
        pos.send(kitchenOrderFrame(text, otherPort.port(), QStringLiteral("127.0.0.1")));
        pos.send(kitchenOrderFrame(text, outOfRange.port(), QStringLiteral("127.0.3.7")));
        pos.send(kitchenOrderFrame(text, withPort.port(), QStringLiteral("127.0.0.1")));
        pos.send(kitchenOrderFrame(text, anyPort.port(), QStringLiteral("127.0.0.3")));
        pos.send(kitchenOrderFrame(text, inRange.port(), QStringLiteral("127.0.2.7")));

        const auto printed = [&](const devsim::Printer &printer) {
            return printer.closedCount() == 1 && printer.connections().first().received == order;
        };
        QVERIFY(waitUntil([&] { return printed(withPort) && printed(anyPort) && printed(inRange); }, 10000));
        QVERIFY(waitUntil(
            [&] { return linesAbout(service.stdoutLines(), "KITCHEN_ALLOWED_PRINTERS").size() == 2; }, 5000));
        const QStringList refused = linesAbout(service.stdoutLines(), "KITCHEN_ALLOWED_PRINTERS");
        QCOMPARE(
            refused,
            QStringList({QStringLiteral("kitchen printer 127.0.0.1:%1: not in KITCHEN_ALLOWED_PRINTERS, the "
                                        "order was not sent")
                             .arg(otherPort.port()),
                         QStringLiteral("kitchen printer 127.0.3.7:%1: not in KITCHEN_ALLOWED_PRINTERS, the "
                                        "order was not sent")
                             .arg(outOfRange.port())}));
        keepRunningFor(300); // a late connection would show here
        QCOMPARE(otherPort.connections().size(), 0);
        QCOMPARE(outOfRange.connections().size(), 0);
        QVERIFY(service.isRunning());
        QVERIFY(service.stderrLines().isEmpty());
    }
    void orderKeptForAPrinterThatLeftTheListIsDroppedUnsent() {
        const quint16 port = devsim::refusingPort(); // nobody listens yet: the order is kept for retry

        ServiceProcess service;
        service.set(QStringLiteral("KITCHEN_RETRY_MINUTES"), QStringLiteral("5"));
        PosClient pos;
        QVERIFY(service.start());
        QVERIFY(pos.open(gatewayPort));
        pos.send(kitchenOrderFrame(QStringLiteral("KEPT\n"), port));
        QVERIFY(waitUntil(
            [&] { return pendingText(service).contains(QStringLiteral("kitchen order waiting")); }, 5000));
        service.killHard();

        devsim::Printer dropped, listed;
        QVERIFY(dropped.listen(port));
        QVERIFY(listed.listen());
        service.set(QStringLiteral("KITCHEN_ALLOWED_PRINTERS"),
                    QStringLiteral("127.0.0.1:%1").arg(listed.port()));
        QVERIFY(service.start());
        QVERIFY(service.waitForStdoutLine(
            QStringLiteral(
                "kitchen printer 127.0.0.1:%1: not in KITCHEN_ALLOWED_PRINTERS, the order was not sent")
                .arg(port),
            5000));
        QVERIFY(waitUntil(
            [&] { return pendingText(service).startsWith(QStringLiteral("nothing is waiting")); }, 5000));

        PosClient next;
        QVERIFY(next.open(gatewayPort));
        next.send(kitchenOrderFrame(QStringLiteral("LISTED\n"), listed.port()));
        QVERIFY(waitUntil([&] { return listed.closedCount() == 1; }, 5000));
        QCOMPARE(listed.connections().first().received, QByteArray("LISTED\n"));
        QCOMPARE(dropped.connections().size(), 0);
    }
    void pinningTheFirstOriginClosesOtherSitesPagesLetInBefore() {
        ServiceProcess service;
        QVERIFY(service.start());
        QWebSocket ad(QStringLiteral("http://ad.example"));
        ad.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/").arg(gatewayPort)));
        QVERIFY(waitUntil([&] { return ad.state() == QAbstractSocket::ConnectedState; }, 5000));

        // Turned on while the service runs: the next browser origin is the shop's.
        service.set(QStringLiteral("WEBSOCKET_PIN_FIRST_ORIGIN"), QStringLiteral("true"));
        QWebSocket pos(QStringLiteral("http://127.0.0.1:8080"));
        pos.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/").arg(gatewayPort)));
        QVERIFY(waitUntil([&] { return ad.state() == QAbstractSocket::UnconnectedState; }, 5000));
        QCOMPARE(ad.closeCode(), QWebSocketProtocol::CloseCodePolicyViolated);
        QVERIFY(waitUntil([&] { return pos.state() == QAbstractSocket::ConnectedState; }, 5000));
        keepRunningFor(200); // the pinned page stays
        QCOMPARE(pos.state(), QAbstractSocket::ConnectedState);
        QVERIFY(settingsText(service).contains(
            QStringLiteral("WEBSOCKET_ALLOWED_ORIGINS=http://127.0.0.1:8080")));
    }
};

QTEST_GUILESS_MAIN(OriginPinningTest)
#include "tst_originpinning.moc"
