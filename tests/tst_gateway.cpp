#include "common/userdefaults.h"
#include "forked.h"
#include "gateway/request.h"
#include "gateway/websocketviewcontroller.h"
#include "localaddress.h"
#include "posclient.h"
#include "rawwebsocket.h"
#include "recordingchannel.h"
#include "wait.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QWebSocket>
#include <QtTest>

namespace {

class RecordingLabel : public TextLabel {
public:
    QString text;
    std::optional<Qt::GlobalColor> color;
    void setStringValue(const QString &t) override { text = t; }
    void setTextColor(Qt::GlobalColor c) override { color = c; }
};

QString usbPrint(const QString &extra = {}) {
    return R"({"requesttype":"print","data":[1,2,3])" + extra + "}";
}

} // namespace

class GatewayTest : public QObject {
    Q_OBJECT
    QTemporaryDir config;
    std::unique_ptr<WebSocketViewController> gateway;
    RecordingLabel label;
    RecordingChannel tcpChannel;
    RecordingChannel usbChannel;
    QList<TerminalRequest> &usbRequests = usbChannel.requests;
    quint16 port = 0;

    // `client` connects by hand and sends the first frame: it is the POS.
    void speakFirst(RawWebSocket &client) {
        QVERIFY(client.connect(port));
        client.write(RawWebSocket::handshake());
        QVERIFY(client.awaitAnswerHead(3000).startsWith("HTTP/1.1 101"));
        client.write(RawWebSocket::text(usbPrint().toLatin1()));
        QVERIFY(waitUntil([&] { return usbRequests.size() == 1; }, 3000));
    }

    // Shows that nothing reached `client` before now, without waiting for a time: the client
    // speaks and so becomes the POS, and the gateway gives it one answer, "probe". A text sent
    // to it earlier would have come first on the same connection.
    void receivesNothingBeforeAProbe(PosClient &client) {
        const qsizetype requests = usbRequests.size();
        client.send(usbPrint());
        QVERIFY(waitUntil([&] { return usbRequests.size() == requests + 1; }, 3000));
        gateway->deliverAnswer({QStringLiteral("probe"), QStringLiteral("KIS-7430")});
        QVERIFY(waitUntil([&] { return !client.texts.isEmpty(); }, 3000));
        QCOMPARE(client.texts,
                 QStringList{QStringLiteral(
                     R"({"response":{"data":"probe"},"devicetype":"CAT","devicename":"KIS-7430"})")});
    }

private slots:
    void initTestCase() {
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(config.path()));
        UserDefaults::standard().setValue(QStringLiteral("MAIN_INTERFACE"), QStringLiteral("USB"));
    }

    void init() {
        usbRequests.clear();
        tcpChannel.requests.clear();
        usbChannel.onRequest = nullptr;
        label = RecordingLabel();
        gateway = std::make_unique<WebSocketViewController>(0);
        gateway->websocketLabel = &label;
        gateway->setTerminalChannels({&tcpChannel, &usbChannel});
        gateway->viewDidLoad();
        port = gateway->server.serverPort();
        QVERIFY(port != 0);
    }

    void cleanup() { gateway.reset(); }

    void startShowsServiceStartedInGreenOnLoopback() {
        QCOMPARE(label.text, QStringLiteral("서비스 시작"));
        QCOMPARE(label.color, std::optional<Qt::GlobalColor>(Qt::green));
        QCOMPARE(gateway->server.serverAddress(), QHostAddress(QHostAddress::LocalHost));
        if (const auto outside = nonLoopbackIPv4()) {
            QTcpSocket fromOutside;
            fromOutside.connectToHost(*outside, port);
            QVERIFY(!fromOutside.waitForConnected(1000));
        }
    }

    void takenPortLeavesTheLabelAsItWas() {
        RecordingLabel untouched;
        WebSocketViewController second(port); // the fixture's gateway holds this port
        second.websocketLabel = &untouched;
        second.viewDidLoad();
        QVERIFY(!second.server.isListening());
        QCOMPARE(untouched.text, QString());
        QVERIFY(!untouched.color);
    }

    void tcpInterfaceHandsTheRequestToTheTcpChannel() {
        const QList<TerminalRequest> &tcpRequests = tcpChannel.requests;
        UserDefaults::standard().setValue(QStringLiteral("MAIN_INTERFACE"), QStringLiteral("TCP"));
        PosClient a;
        QVERIFY(a.open(port));
        a.send(R"({"requesttype":"payment","data":[2,3],"van":"KIS","ip":"10.0.0.9"})");
        const bool arrived = waitUntil([&] { return tcpRequests.size() == 1; }, 3000);
        UserDefaults::standard().setValue(QStringLiteral("MAIN_INTERFACE"), QStringLiteral("USB"));
        QVERIFY(arrived);
        QCOMPARE(usbRequests.size(), 0);
        QCOMPARE(tcpRequests.first().van, QStringLiteral("KIS"));
        QCOMPARE(tcpRequests.first().requestType, std::optional<QString>(QStringLiteral("payment")));
        QCOMPARE(tcpRequests.first().data, QByteArray("\x02\x03"));
    }

    void displacedSessionGetsItsCloseFrameBeforeTheNewFrameIsRouted() {
        RawWebSocket a;
        speakFirst(a);
        if (QTest::currentTestFailed())
            return;
        PosClient b;
        QVERIFY(b.open(port));
        // While B's frame is being routed, the gateway cannot run: what A can read then is
        // what the gateway wrote before routing began.
        std::optional<int> closeCodeBeforeRouting;
        usbChannel.onRequest = [&](const TerminalRequest &) {
            if (closeCodeBeforeRouting)
                return;
            a.socket.waitForReadyRead(2000);
            const auto frames = a.awaitFrames(1, 0);
            closeCodeBeforeRouting = frames.isEmpty() ? -1 : frames.first().closeCode();
        };
        b.send(usbPrint());
        QVERIFY(waitUntil([&] { return closeCodeBeforeRouting.has_value(); }, 3000));
        QCOMPARE(*closeCodeBeforeRouting, int(QWebSocketProtocol::CloseCodeNormal));
        // A answers the close frame as RFC 6455 asks: the gateway closes the connection
        // and sends no second close frame.
        a.write(RawWebSocket::closeReply());
        QVERIFY(waitUntil([&] { return a.socket.state() == QAbstractSocket::UnconnectedState; }, 3000));
        QCOMPARE(a.awaitFrames(1, 0).size(), 0);
        QCOMPARE(usbRequests.size(), 2);
        QVERIFY(!b.disconnected);
    }

    void displacedPosThatSendsAgainTakesTheRoleBack() {
        // A native POS that goes on sending without waiting for the close frame.
        RawWebSocket a;
        speakFirst(a);
        if (QTest::currentTestFailed())
            return;
        PosClient b;
        QVERIFY(b.open(port));
        b.send(usbPrint(R"(,"from":"B")"));
        QVERIFY(waitUntil([&] { return usbRequests.size() == 2; }, 3000));
        const auto closing = a.awaitFrames(1, 3000);
        QCOMPARE(closing.size(), 1);
        QCOMPARE(closing.first().closeCode(), int(QWebSocketProtocol::CloseCodeNormal));

        a.write(RawWebSocket::text(usbPrint(R"(,"from":"A again")").toLatin1()));
        QVERIFY(waitUntil([&] { return usbRequests.size() == 3; }, 3000));
        // B is displaced in turn, and, being a well-behaved client, goes.
        QVERIFY(waitUntil([&] { return b.disconnected; }, 3000));
        QCOMPARE(b.closeCode, QWebSocketProtocol::CloseCodeNormal);

        gateway->deliverAnswer({QStringLiteral("for A"), QStringLiteral("KIS-7430")});
        const auto answers = a.awaitFrames(1, 3000);
        QCOMPARE(answers.size(), 1);
        QCOMPARE(answers.first().opcode, 0x1);
        QCOMPARE(answers.first().payload,
                 QByteArray(R"({"response":{"data":"for A"},"devicetype":"CAT","devicename":"KIS-7430"})"));
        QCOMPARE(b.texts.size(), 0);
        QCOMPARE(a.socket.state(), QAbstractSocket::ConnectedState);
    }

    void firstFramesInTheSameWriteAsTheHandshakeAreRouted_data() {
        QTest::addColumn<int>("frames");
        QTest::newRow("one frame") << 1;
        QTest::newRow("two frames") << 2;
    }
    void firstFramesInTheSameWriteAsTheHandshakeAreRouted() {
        QFETCH(int, frames);
        RawWebSocket client;
        QVERIFY(client.connect(port));
        QByteArray bytes = RawWebSocket::handshake();
        for (int i = 0; i < frames; ++i)
            bytes += RawWebSocket::text(usbPrint(QStringLiteral(R"(,"n":%1)").arg(i)).toLatin1());
        client.write(bytes);
        QVERIFY(waitUntil([&] { return usbRequests.size() == frames; }, 3000));
        QVERIFY(client.awaitAnswerHead(3000).startsWith("HTTP/1.1 101"));
        QVERIFY(gateway->wsSession); // the first frame made it the POS
        // A later frame is still read in step.
        client.write(RawWebSocket::text(usbPrint().toLatin1()));
        QVERIFY(waitUntil([&] { return usbRequests.size() == frames + 1; }, 3000));
        // Each frame is routed once: a probe frame sent last is the next request, nothing
        // of the earlier ones ahead of it.
        client.write(RawWebSocket::text(R"({"requesttype":"print","data":[9]})"));
        QVERIFY(waitUntil([&] { return !usbRequests.isEmpty() && usbRequests.last().data == "\x09"; }, 3000));
        QCOMPARE(usbRequests.size(), frames + 2);
    }

    void handshakeSplitAcrossWritesWithAFrameBehindIt() {
        RawWebSocket client;
        QVERIFY(client.connect(port));
        const QByteArray handshake = RawWebSocket::handshake();
        const QByteArray frame = RawWebSocket::text(usbPrint().toLatin1());
        client.write(handshake.left(20));
        keepRunningFor(50);
        client.write(handshake.mid(20, 40));
        keepRunningFor(50);
        // The end of the head and the whole frame, then a second frame cut in two.
        const QByteArray second = RawWebSocket::text(usbPrint(R"(,"n":2)").toLatin1());
        client.write(handshake.mid(60) + frame + second.left(5));
        keepRunningFor(50);
        client.write(second.mid(5));
        QVERIFY(waitUntil([&] { return usbRequests.size() == 2; }, 3000));
        QVERIFY(client.awaitAnswerHead(3000).startsWith("HTTP/1.1 101"));
    }

    void firstFrameMakesTheSenderHeldAndIsRouted() {
        PosClient a;
        QVERIFY(a.open(port));
        QVERIFY(!gateway->wsSession);
        a.send(usbPrint());
        QVERIFY(waitUntil([&] { return usbRequests.size() == 1; }, 3000));
        QVERIFY(gateway->wsSession);
        QCOMPARE(usbRequests.first().data, QByteArray("\x01\x02\x03"));
    }

    void usbRequestCarriesWhatThePosSent() {
        PosClient a;
        QVERIFY(a.open(port));
        a.send(usbPrint());
        a.send(R"({"requesttype":7,"data":[9],"van":["KIS"]})");
        QVERIFY(waitUntil([&] { return usbRequests.size() == 2; }, 3000));
        QCOMPARE(usbRequests[0].requestType, std::optional<QString>(QStringLiteral("print")));
        QCOMPARE(usbRequests[0].van, QString());
        QCOMPARE(usbRequests[0].data, QByteArray("\x01\x02\x03"));
        // Only JSON text counts as a request type or a VAN.
        QCOMPARE(usbRequests[1].requestType, std::nullopt);
        QCOMPARE(usbRequests[1].van, QString());
        QCOMPARE(usbRequests[1].data, QByteArray("\x09"));
        QCOMPARE(tcpChannel.requests.size(), 0);
    }

    void mostRecentSenderWins() {
        PosClient a, b;
        QVERIFY(a.open(port));
        QVERIFY(b.open(port));
        a.send(usbPrint());
        QVERIFY(waitUntil([&] { return usbRequests.size() == 1; }, 3000));
        b.send(usbPrint());
        QVERIFY(waitUntil([&] { return a.disconnected; }, 3000));
        QCOMPARE(a.closeCode, QWebSocketProtocol::CloseCodeNormal);
        QCOMPARE(usbRequests.size(), 2);
        QVERIFY(!b.disconnected);

        gateway->deliverAnswer({QStringLiteral("OK"), QStringLiteral("KIS-7430")});
        QVERIFY(waitUntil([&] { return b.texts.size() == 1; }, 3000));
        QCOMPARE(a.texts.size(), 0);
        const QJsonObject json = QJsonDocument::fromJson(b.texts.first().toUtf8()).object();
        QCOMPARE(json.value("devicename").toString(), QStringLiteral("KIS-7430"));
        QCOMPARE(json.value("response").toObject().value("data").toString(), QStringLiteral("OK"));
    }

    void connectionThatNeverSendsGetsNoResponses() {
        PosClient silent;
        QVERIFY(silent.open(port));
        gateway->deliverAnswer({QStringLiteral("x"), QStringLiteral("KIS-7430")});
        receivesNothingBeforeAProbe(silent);
    }

    void binaryFrameIsIgnoredAndTheHeldSessionStays() {
        PosClient a, b;
        QVERIFY(a.open(port));
        QVERIFY(b.open(port));
        a.send(usbPrint());
        QVERIFY(waitUntil([&] { return usbRequests.size() == 1; }, 3000));
        b.socket.sendBinaryMessage(QByteArray(usbPrint().toLatin1()));
        b.socket.flush();
        // The gateway answers a ping once it has read what came before it on that connection.
        bool ponged = false;
        QObject::connect(&b.socket, &QWebSocket::pong, [&] { ponged = true; });
        b.socket.ping();
        b.socket.flush();
        QVERIFY(waitUntil([&] { return ponged; }, 3000));
        QCOMPARE(usbRequests.size(), 1);
        QVERIFY(!a.disconnected);
        gateway->deliverAnswer({QStringLiteral("due"), QStringLiteral("KIS-7430")});
        QVERIFY(waitUntil([&] { return a.texts.size() == 1; }, 3000));
        QCOMPARE(b.texts.size(), 0);
    }

    void koreanResponseIsValidUtf8Json() {
        PosClient a;
        QVERIFY(a.open(port));
        a.send(usbPrint());
        QVERIFY(waitUntil([&] { return usbRequests.size() == 1; }, 3000));
        gateway->deliverAnswer({QStringLiteral("승인 완료 \"1234\""), QStringLiteral("TS-132N")});
        QVERIFY(waitUntil([&] { return a.texts.size() == 1; }, 3000));
        QJsonParseError error;
        const QJsonDocument doc = QJsonDocument::fromJson(a.texts.first().toUtf8(), &error);
        QCOMPARE(error.error, QJsonParseError::NoError);
        QCOMPARE(doc.object().value("response").toObject().value("data").toString(),
                 QStringLiteral("승인 완료 \"1234\""));
        QVERIFY(!a.texts.first().contains(u'\n')); // compact
    }

    void responseKeysComeAnswerFirst() {
        PosClient a;
        QVERIFY(a.open(port));
        a.send(usbPrint());
        QVERIFY(waitUntil([&] { return usbRequests.size() == 1; }, 3000));
        gateway->deliverAnswer({QStringLiteral("ABC"), QStringLiteral("TS-132N")});
        gateway->deliverAnswer({QStringLiteral("x\"\\/\n\u0001"), QStringLiteral("김")});
        QVERIFY(waitUntil([&] { return a.texts.size() == 2; }, 3000));
        QCOMPARE(a.texts[0],
                 QStringLiteral(R"({"response":{"data":"ABC"},"devicetype":"CAT","devicename":"TS-132N"})"));
        // Quotes, backslashes and control characters escaped as JSON has them, and the
        // slash written "\/" as POS front ends were written to receive it.
        const QString escaped = QStringLiteral("x\\\"\\\\\\/\\n\\u0001");
        QCOMPARE(a.texts[1], QStringLiteral("{\"response\":{\"data\":\"") + escaped +
                                 QStringLiteral("\"},\"devicetype\":\"CAT\",\"devicename\":\"김\"}"));
    }

    void responseFromAnotherThreadReachesThePos() {
        PosClient a;
        QVERIFY(a.open(port));
        a.send(usbPrint());
        QVERIFY(waitUntil([&] { return usbRequests.size() == 1; }, 3000));
        // As a channel on another thread gives its answers: answerReady, emitted there.
        std::unique_ptr<QThread> worker(QThread::create([this] {
            for (int i = 0; i < 3; ++i)
                emit usbChannel.answerReady({QString::number(i), QStringLiteral("KIS-7430")});
        }));
        worker->start();
        QVERIFY(worker->wait(3000));
        QVERIFY(waitUntil([&] { return a.texts.size() == 3; }, 3000));
        for (int i = 0; i < 3; ++i)
            QCOMPARE(QJsonDocument::fromJson(a.texts[i].toUtf8())
                         .object()
                         .value("response")
                         .toObject()
                         .value("data")
                         .toString(),
                     QString::number(i));
    }

    void responseBeforeAnyFrameIsDropped() {
        PosClient silent;
        QVERIFY(silent.open(port));
        const ChildOutcome outcome = runInChild([this] {
            emit usbChannel.answerReady({QStringLiteral("x"), QStringLiteral("KIS-7430")});
            emit tcpChannel.answerReady({QStringLiteral("y"), QStringLiteral("KIS7430")});
        });
        QCOMPARE(outcome.exitCode, 0);
        QCOMPARE(outcome.standardError, QByteArray());
        receivesNothingBeforeAProbe(silent);
    }

    void sessionStaysHeldAfterThePosDisconnects() {
        {
            PosClient a;
            QVERIFY(a.open(port));
            a.send(usbPrint());
            QVERIFY(waitUntil([&] { return usbRequests.size() == 1; }, 3000));
            a.socket.close();
            QVERIFY(waitUntil([&] { return !gateway->wsSession; }, 3000));
        }
        // The response for the departed POS is lost quietly, and a second page that has
        // only connected does not get it.
        PosClient newcomer;
        QVERIFY(newcomer.open(port));
        emit tcpChannel.answerReady({QStringLiteral("late"), QStringLiteral("KIS7430")});
        receivesNothingBeforeAProbe(newcomer);
    }

    void plainPageRequestForTheGatewayIsRefused() {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(socket.waitForConnected(2000));
        socket.write("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        QVERIFY(waitUntil([&] { return socket.bytesAvailable() > 0; }, 3000));
        QVERIFY(socket.readAll().startsWith("HTTP/1.1 400"));
    }

    void startWithoutStatusLabelStopsTheService() {
        const ChildOutcome outcome = runInChild([] {
            WebSocketViewController unlabelled(0);
            unlabelled.viewDidLoad();
        });
        QVERIFY(outcome.exitCode != 0);
        QVERIFY2(outcome.standardError.startsWith("fatal: "), outcome.standardError.constData());
    }

    void otherPathsAreNotUpgraded() {
        QVERIFY(rawHandshake(port, "/other").startsWith("HTTP/1.1 404"));
        QVERIFY(rawHandshake(port, "/other/").startsWith("HTTP/1.1 404"));
        QVERIFY(rawHandshake(port, "//").startsWith("HTTP/1.1 404"));
        QVERIFY(rawHandshake(port, "/").startsWith("HTTP/1.1 101"));
        QVERIFY(rawHandshake(port, "/?session=1").startsWith("HTTP/1.1 101"));
    }

    void requestWithoutHostIsRefused() {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(socket.waitForConnected(2000));
        socket.write("GET / HTTP/1.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n\r\n");
        QVERIFY(waitUntil([&] { return socket.bytesAvailable() > 0; }, 3000));
        QVERIFY(socket.readAll().startsWith("HTTP/1.1 400"));
    }

    void originsCanBeRestricted() {
        UserDefaults::standard().setValue(QStringLiteral("WEBSOCKET_ALLOWED_ORIGINS"),
                                          QStringLiteral("http://pos.local, https://pos.example"));
        QVERIFY(rawHandshake(port, "/", "Origin: http://evil.example\r\n").startsWith("HTTP/1.1 403"));
        QVERIFY(rawHandshake(port, "/", "Origin: http://pos.local\r\n").startsWith("HTTP/1.1 101"));
        QVERIFY(rawHandshake(port, "/", "Origin: https://pos.example\r\n").startsWith("HTTP/1.1 101"));
        QVERIFY(rawHandshake(port, "/").startsWith("HTTP/1.1 101")); // no Origin: not a browser
        UserDefaults::standard().remove(QStringLiteral("WEBSOCKET_ALLOWED_ORIGINS"));
        QVERIFY(rawHandshake(port, "/", "Origin: http://evil.example\r\n").startsWith("HTTP/1.1 101"));
    }

    void unfinishedHandshakeIsDropped() {
        gateway->server.setHandshakeTimeout(300);
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(socket.waitForConnected(2000));
        socket.write("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n"); // never finished
        QElapsedTimer clock;
        clock.start();
        QVERIFY(waitUntil([&] { return socket.state() == QAbstractSocket::UnconnectedState; }, 3000));
        QVERIFY(clock.elapsed() >= 250);
    }

    void oversizedMessageIsRefusedWith1009() {
        gateway->server.setMaxIncomingMessageSize(1024);
        PosClient big;
        QVERIFY(big.open(port));
        big.send(QString(2048, u'x'));
        QVERIFY(waitUntil([&] { return big.disconnected; }, 3000));
        QCOMPARE(big.closeCode, QWebSocketProtocol::CloseCodeTooMuchData);
        QCOMPARE(usbRequests.size(), 0);
        PosClient next;
        QVERIFY(next.open(port));
        next.send(usbPrint());
        QVERIFY(waitUntil([&] { return usbRequests.size() == 1; }, 3000));
    }

    void listenAllIsAnOptIn() {
        QCOMPARE(gateway->server.isListening(), true);
        UserDefaults::standard().setValue(QStringLiteral("WEBSOCKET_LISTEN_ALL"), QStringLiteral("true"));
        WebSocketViewController open(0);
        RecordingLabel openLabel;
        open.websocketLabel = &openLabel;
        open.viewDidLoad();
        UserDefaults::standard().remove(QStringLiteral("WEBSOCKET_LISTEN_ALL"));
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHostIPv6, open.server.serverPort());
        QVERIFY(probe.waitForConnected(2000)); // Any includes the IPv6 loopback; 127.0.0.1 alone would not
        if (const auto outside = nonLoopbackIPv4()) {
            QTcpSocket fromOutside;
            fromOutside.connectToHost(*outside, open.server.serverPort());
            QVERIFY(fromOutside.waitForConnected(2000));
        }
        QTcpSocket refused;
        refused.connectToHost(QHostAddress::LocalHostIPv6, port);
        QVERIFY(!refused.waitForConnected(1000));
    }
};

QTEST_GUILESS_MAIN(GatewayTest)
#include "tst_gateway.moc"
