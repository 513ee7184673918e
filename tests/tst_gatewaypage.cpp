// The gateway page in the popover as the shop owner uses it, on Qt's offscreen platform:
// real widgets and clicks, a real WebSocket POS, and the settings file.
#include "common/userdefaults.h"
#include "gateway/websocketviewcontroller.h"
#include "posclient.h"
#include "shell/gatewaypage.h"
#include "stdoutcapture.h"
#include "wait.h"

#include <QApplication>
#include <QClipboard>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTemporaryDir>
#include <QWebSocket>
#include <QtTest>

namespace {
const QString allowedKey = QStringLiteral("WEBSOCKET_ALLOWED_ORIGINS");
const QString posOrigin = QStringLiteral("http://192.168.0.20:8080");
} // namespace

class GatewayPageTest : public QObject {
    Q_OBJECT
    QTemporaryDir config;
    std::unique_ptr<WebSocketViewController> gateway; // what the page shows; it outlives the page
    std::unique_ptr<GatewayPage> page;
    quint16 port = 0;

    bool connectPos(QWebSocket &pos) {
        pos.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/").arg(port)));
        return waitUntil([&] { return pos.state() == QAbstractSocket::ConnectedState; }, 5000);
    }

private slots:
    void initTestCase() { qputenv("XDG_CONFIG_HOME", QFile::encodeName(config.path())); }

    void init() {
        UserDefaults::standard().remove(allowedKey);
        gateway = std::make_unique<WebSocketViewController>(0);
        page = std::make_unique<GatewayPage>(*gateway);
        port = page->controller().server.serverPort();
        QVERIFY(port != 0);
        page->show();
        QVERIFY(QTest::qWaitForWindowExposed(page.get()));
    }

    void cleanup() {
        page.reset();
        gateway.reset();
        UserDefaults::standard().remove(allowedKey);
    }

    void protectionsAreShownAndTheButtonTurnsThemOn() {
        const QStringList keys{"WEBSOCKET_PIN_FIRST_ORIGIN", "TERMINAL_ANSWER_PEERS",
                               "KITCHEN_ALLOWED_PRINTERS", "HOLD_UNDELIVERED_ANSWERS",
                               "KITCHEN_RETRY_MINUTES"};
        for (const QString &key : keys)
            UserDefaults::standard().remove(key);
        page->appear();
        QCOMPARE(page->protectionsLabel()->text(),
                 QStringLiteral("보호 설정 꺼짐: WEBSOCKET_ALLOWED_ORIGINS, TERMINAL_ANSWER_PEERS, "
                                "KITCHEN_ALLOWED_PRINTERS, HOLD_UNDELIVERED_ANSWERS, KITCHEN_RETRY_MINUTES"));
        QVERIFY(page->lockDownButton()->isEnabled());

        // One turned on from a terminal is no longer listed once the page is shown again.
        UserDefaults::standard().setValue("HOLD_UNDELIVERED_ANSWERS", "true");
        page->appear();
        QVERIFY(!page->protectionsLabel()->text().contains("HOLD_UNDELIVERED_ANSWERS"));

        StdoutCapture output;
        page->lockDownButton()->click();
        QCOMPARE(page->protectionsLabel()->text(), QStringLiteral("보호 설정: 모두 켜짐"));
        QVERIFY(!page->lockDownButton()->isEnabled());
        QCOMPARE(UserDefaults::standard().string("WEBSOCKET_PIN_FIRST_ORIGIN"),
                 std::optional<QString>("true"));
        QCOMPARE(UserDefaults::standard().string("TERMINAL_ANSWER_PEERS"), std::optional<QString>("TCP_IP"));
        QCOMPARE(UserDefaults::standard().string("KITCHEN_RETRY_MINUTES"), std::optional<QString>("10"));
        const QStringList lines = output.lines();
        QCOMPARE(lines.size(), 1);
        QVERIFY2(lines.first().startsWith(
                     "protections turned on from the popover: WEBSOCKET_PIN_FIRST_ORIGIN=true, "
                     "TERMINAL_ANSWER_PEERS=TCP_IP, "),
                 qPrintable(lines.first()));
        QVERIFY2(lines.first().endsWith("HOLD_UNDELIVERED_ANSWERS=true, KITCHEN_RETRY_MINUTES=10"),
                 qPrintable(lines.first()));
        for (const QString &key : keys)
            UserDefaults::standard().remove(key);
    }

    void aPublicPosPageIsGivenTheCommandThatLetsItThrough() {
        // Nothing connected, nothing allowed: nothing to say.
        QVERIFY(page->browserPolicyLabel()->isHidden());
        QVERIFY(page->browserPolicyCommandField()->isHidden());
        QVERIFY(page->copyCommandButton()->isHidden());

        QWebSocket pos(QStringLiteral("https://pos.example.com"));
        QVERIFY(connectPos(pos));
        QVERIFY(waitUntil([&] { return !page->browserPolicyCommandField()->isHidden(); }, 3000));
        const QString command = QStringLiteral("sudo teranocounter --browser-policy https://pos.example.com");
        QCOMPARE(page->browserPolicyLabel()->text(),
                 QStringLiteral("브라우저가 연결을 묻지 않게 하려면 터미널에서:"));
        QCOMPARE(page->browserPolicyCommandField()->text(), command);
        QVERIFY(page->browserPolicyCommandField()->isReadOnly());
        QVERIFY(!page->copyCommandButton()->isHidden());

        QGuiApplication::clipboard()->clear();
        QTest::mouseClick(page->copyCommandButton(), Qt::LeftButton);
        QCOMPARE(QGuiApplication::clipboard()->text(), command);

        // Once the POS is gone, the pinned origin still needs the policy; the command keeps
        // every allowed site, since it replaces the browsers' list.
        UserDefaults::standard().setValue(allowedKey,
                                          QStringLiteral("https://pos.example.com,null,") + posOrigin);
        pos.close();
        QVERIFY(waitUntil(
            [&] { return page->posOriginLabel()->text() == QStringLiteral("POS Origin: 연결 없음"); }, 3000));
        QCOMPARE(page->browserPolicyCommandField()->text(),
                 QStringLiteral("sudo teranocounter --browser-policy https://pos.example.com ") + posOrigin);
    }

    void aPageOfThisComputerNeedsNoCommand_data() {
        QTest::addColumn<QString>("origin");
        QTest::newRow("file") << QStringLiteral("null");
        QTest::newRow("localhost") << QStringLiteral("http://localhost:8080");
        QTest::newRow("loopback") << QStringLiteral("http://127.0.0.1:5173");
        QTest::newRow("IPv6 loopback") << QStringLiteral("http://[::1]:8080");
    }

    void aPageOfThisComputerNeedsNoCommand() {
        QFETCH(QString, origin);
        QWebSocket local(origin);
        QVERIFY(connectPos(local));
        QVERIFY(waitUntil([&] { return !page->browserPolicyLabel()->isHidden(); }, 3000));
        QCOMPARE(page->browserPolicyLabel()->text(),
                 QStringLiteral("이 컴퓨터의 페이지라 브라우저 허용 설정이 필요 없습니다"));
        QVERIFY(page->browserPolicyCommandField()->isHidden());
        QVERIFY(page->copyCommandButton()->isHidden());
    }

    void pinButtonWritesTheConnectedPosOriginAndClearOpensAgain() {
        QCOMPARE(page->posOriginLabel()->text(), QStringLiteral("POS Origin: 연결 없음"));
        QVERIFY(!page->pinOriginButton()->isEnabled());
        QVERIFY(!page->clearOriginsButton()->isEnabled());

        QWebSocket pos(posOrigin);
        QVERIFY(connectPos(pos));
        QVERIFY(waitUntil([&] { return page->pinOriginButton()->isEnabled(); }, 3000));
        QCOMPARE(page->posOriginLabel()->text(), QStringLiteral("POS Origin: ") + posOrigin);
        // The page's own connection label is never written.
        QCOMPARE(page->posConnectionLabel()->text(), QStringLiteral("POS 연결 대기"));

        {
            StdoutCapture out;
            QTest::mouseClick(page->pinOriginButton(), Qt::LeftButton);
            QCOMPARE(
                out.lines(),
                QStringList(
                    QStringLiteral("WEBSOCKET_ALLOWED_ORIGINS: %1 allowed from the popover").arg(posOrigin)));
        }
        QCOMPARE(UserDefaults::standard().string(allowedKey), std::optional<QString>(posOrigin));
        QVERIFY(!page->pinOriginButton()->isEnabled());
        QVERIFY(page->clearOriginsButton()->isEnabled());
        QVERIFY(page->allowedOriginsLabel()->text().contains(posOrigin));

        // The pinned POS stays connected; a page from elsewhere is refused and shown.
        QVERIFY(rawHandshake(port, "/", "Origin: http://ad.example\r\n").startsWith("HTTP/1.1 403"));
        QVERIFY(rawHandshake(port, "/", "Origin: " + posOrigin.toUtf8() + "\r\n").startsWith("HTTP/1.1 101"));
        QVERIFY(page->refusedOriginsLabel()->text().contains(QStringLiteral("http://ad.example")));
        QCOMPARE(pos.state(), QAbstractSocket::ConnectedState);

        QTest::mouseClick(page->clearOriginsButton(), Qt::LeftButton);
        QVERIFY(!UserDefaults::standard().value(allowedKey));
        QVERIFY(!page->clearOriginsButton()->isEnabled());
        QVERIFY(rawHandshake(port, "/", "Origin: http://ad.example\r\n").startsWith("HTTP/1.1 101"));
    }

    // The protections shown follow a write made while the popover is open, without showing
    // it again: pinning the POS turns the origin protection on, clearing turns it off.
    void protectionsFollowThePinAndClearButtons() {
        UserDefaults::standard().remove("WEBSOCKET_PIN_FIRST_ORIGIN");
        page->appear();
        QVERIFY(page->protectionsLabel()->text().contains("WEBSOCKET_ALLOWED_ORIGINS"));
        QWebSocket pos(posOrigin);
        QVERIFY(connectPos(pos));
        QVERIFY(waitUntil([&] { return page->pinOriginButton()->isEnabled(); }, 3000));
        QTest::mouseClick(page->pinOriginButton(), Qt::LeftButton);
        QVERIFY2(!page->protectionsLabel()->text().contains("WEBSOCKET_ALLOWED_ORIGINS"),
                 qPrintable(page->protectionsLabel()->text()));
        QTest::mouseClick(page->clearOriginsButton(), Qt::LeftButton);
        QVERIFY2(page->protectionsLabel()->text().contains("WEBSOCKET_ALLOWED_ORIGINS"),
                 qPrintable(page->protectionsLabel()->text()));
    }

    void pinningClosesTheOtherSitesPagesAlreadyIn() {
        QWebSocket ad(QStringLiteral("http://ad.example"));
        QVERIFY(connectPos(ad));
        QWebSocket pos(posOrigin);
        QVERIFY(connectPos(pos));
        // No frame sent yet: the page shows the latest to connect.
        QVERIFY(waitUntil([&] { return page->posOriginLabel()->text().endsWith(posOrigin); }, 3000));
        QTest::mouseClick(page->pinOriginButton(), Qt::LeftButton);
        QVERIFY(waitUntil([&] { return ad.state() == QAbstractSocket::UnconnectedState; }, 3000));
        QCOMPARE(ad.closeCode(), QWebSocketProtocol::CloseCodePolicyViolated);
        QCOMPARE(pos.state(), QAbstractSocket::ConnectedState);
    }

    void clientWithoutOriginIsShownAsSuchAndCannotBePinned() {
        QWebSocket terminalProgram;
        QVERIFY(connectPos(terminalProgram));
        QVERIFY(waitUntil(
            [&] { return page->posOriginLabel()->text() == QStringLiteral("POS Origin: no Origin header"); },
            3000));
        QVERIFY(!page->pinOriginButton()->isEnabled());
        QTest::mouseClick(page->pinOriginButton(), Qt::LeftButton);
        QVERIFY(!UserDefaults::standard().value(allowedKey));
    }
    void pageLetInBeforeTheListChangedIsClosedAtItsNextFrame() {
        QWebSocket ad(QStringLiteral("http://ad.example"));
        QVERIFY(connectPos(ad));
        QVERIFY(waitUntil(
            [&] { return page->posOriginLabel()->text().endsWith(QStringLiteral("ad.example")); }, 3000));
        // As `teranocounter --allow-origin` from a terminal would write it.
        UserDefaults::standard().setValue(allowedKey, posOrigin);
        StdoutCapture out;
        ad.sendTextMessage(QStringLiteral(R"({"requesttype":"print","data":[65]})"));
        QVERIFY(waitUntil([&] { return ad.state() == QAbstractSocket::UnconnectedState; }, 3000));
        QCOMPARE(ad.closeCode(), QWebSocketProtocol::CloseCodePolicyViolated);
        QStringList lines; // the service's, without the test framework's own messages
        for (const QString &line : out.lines())
            if (!line.startsWith(QLatin1String("QWARN")) && !line.startsWith(QLatin1String("QDEBUG")))
                lines << line;
        QCOMPARE(lines.size(), 1); // the frame went nowhere: no "RECV FIRED!!!:"
        QVERIFY2(lines.first().startsWith(QStringLiteral("WebSocket connection closed at ")) &&
                     lines.first().endsWith(
                         QStringLiteral(": origin http://ad.example is not in WEBSOCKET_ALLOWED_ORIGINS")),
                 qPrintable(lines.join(u'|')));
    }
};

QTEST_MAIN(GatewayPageTest)
#include "tst_gatewaypage.moc"
