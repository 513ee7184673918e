// Held terminal answers (HOLD_UNDELIVERED_ANSWERS) as the gateway hands them to a POS that
// connects: in the order they came, and without keeping anyone else waiting meanwhile.
#include "common/userdefaults.h"
#include "gateway/websocketviewcontroller.h"
#include "posclient.h"
#include "recordingoutlets.h"
#include "store/pendingstore.h"
#include "wait.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

namespace {

QString dataOf(const QString &text) {
    return QJsonDocument::fromJson(text.toUtf8())
        .object()
        .value("response")
        .toObject()
        .value("data")
        .toString();
}

QString numbered(int i) {
    return QStringLiteral("answer %1").arg(i, 3, 10, QChar(u'0'));
}

} // namespace

class HeldAnswersTest : public QObject {
    Q_OBJECT
    QTemporaryDir home;
    std::unique_ptr<WebSocketViewController> gateway;
    RecordingLabel label;
    quint16 port = 0;

private slots:
    void initTestCase() {
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath("config")));
        qputenv("XDG_STATE_HOME", QFile::encodeName(home.filePath("state")));
        UserDefaults::standard().setValue(QStringLiteral("HOLD_UNDELIVERED_ANSWERS"), QStringLiteral("true"));
        gateway = std::make_unique<WebSocketViewController>(0);
        gateway->websocketLabel = &label;
        gateway->viewDidLoad();
        port = gateway->server.serverPort();
        QVERIFY(port != 0);
        QVERIFY(PendingStore::shared());
    }

    void cleanupTestCase() { gateway.reset(); }

    // A hundred answers wait; a POS connects and gets them. A second POS page that connects
    // once the first answer is in has its handshake completed before the last answer of the
    // hundred: delivery leaves the event loop free between answers. Were all hundred written
    // in one go, the second handshake could only be served after them.
    void handshakeIsServedWhileHeldAnswersGoOut() {
        for (int i = 1; i <= 100; ++i)
            gateway->deliverAnswer({numbered(i), QStringLiteral("KIS7430")});
        QCOMPARE(PendingStore::shared()->answers().size(), 100);

        QStringList events;
        PosClient first;
        PosClient second;
        QObject::connect(&first.socket, &QWebSocket::textMessageReceived, [&](const QString &text) {
            events << QStringLiteral("first: ") + dataOf(text);
            if (events.size() == 1)
                second.socket.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/").arg(port)));
        });
        QObject::connect(&second.socket, &QWebSocket::connected,
                         [&] { events << QStringLiteral("second: handshake complete"); });
        QVERIFY(first.open(port));
        QVERIFY2(waitUntil([&] { return first.texts.size() == 100 && events.size() == 101; }, 20000),
                 qPrintable(events.join(u'|')));

        QStringList expected;
        for (int i = 1; i <= 100; ++i)
            expected << numbered(i);
        QStringList received;
        for (const QString &text : std::as_const(first.texts))
            received << dataOf(text);
        QCOMPARE(received, expected);
        const qsizetype handshake = events.indexOf(QStringLiteral("second: handshake complete"));
        QVERIFY2(handshake > 0 && handshake < events.indexOf(QStringLiteral("first: ") + numbered(100)),
                 qPrintable(
                     QStringLiteral("the second handshake completed after event %1 of 101").arg(handshake)));
        QVERIFY(PendingStore::shared()->answers().isEmpty());
        QCOMPARE(second.texts, QStringList());
    }
};

QTEST_GUILESS_MAIN(HeldAnswersTest)
#include "tst_heldanswers.moc"
