// System tests: the real stomp-test-server executable on port 8080, driven by a WebSocket
// STOMP client and a plain HTTP client, as a developer at the shop computer would.
#include "rawwebsocket.h"
#include "stompharness.h"

#include <QTcpServer>
#include <QTest>

using namespace stomptest;

namespace {

const QByteArray startLine = "\n\n Server has started ( port = 8080 ). Try to connect now...\n";
// How the server prints the SUBSCRIBE frame the tests send, NUL and all.
const QByteArray subscribePacket =
    bytes("\n[s1]: received WebSocket packet: \nSUBSCRIBE\nid:0\ndestination:/a\n\n\0\n");

QString connected(const QString &session, const QString &attachment) {
    return QStringLiteral("CONNECTED\nversion:1.2\nsession=") + session + QStringLiteral("\nattachment:") +
           attachment + QStringLiteral("\n\n") + nul();
}
QString receipt() {
    return QStringLiteral("RECEIPT\n\n") + nul();
}
QString error() {
    return QStringLiteral("ERROR\n\n") + nul();
}
QString message(const QString &attachment) {
    return QStringLiteral("MESSAGE\nAttachment_received:") + attachment + QStringLiteral("\n\n") + nul();
}

} // namespace

class TestStompServer : public QObject {
    Q_OBJECT
private slots:
    void init();
    void cleanup();

    void printsStartLineAndListensOnIPv4();
    void connectWithoutAttachment();
    void subscribeThenHttpPostPushesMessage();
    void postAfterUnsubscribeShowsOnlyInConnect();
    void sendGetsNoReply();
    void malformedCommandLineGetsError_data();
    void malformedCommandLineGetsError();
    void disconnectReleasesSessionAndStillSendsReceipt();
    void sessionsDoNotSeeEachOthersAttachments();
    void attachmentPostedRightAfterSubscribeIsPushed();
    void attachmentGoesToConnectionThatSpokeLast();
    void closedConnectionMissesAttachmentQuietly();
    void nonUtf8BodyIsIgnored();
    void stompSubprotocolIsAgreed_data();
    void stompSubprotocolIsAgreed();
    void sessionIdIsTakenFromPath();
    void otherPathsAreNotFound();
    void onlyPostSetsAttachment();
    void postWithoutHostIsDone();
    void chunkedPostIsDone_data();
    void chunkedPostIsDone();
    void frameInTheSameWriteAsTheHandshakeIsAnswered();
    void portTakenEndsWithError();
    void terminationClosesLiveSessions();

private:
    std::unique_ptr<ServerProcess> server;
};

void TestStompServer::init() {
    server = std::make_unique<ServerProcess>();
    server->start();
    QVERIFY2(server->waitForOutput(startLine), server->output.constData());
}

void TestStompServer::cleanup() {
    if (server && server->process.state() != QProcess::NotRunning) {
        QVERIFY(server->stop());
        QCOMPARE(server->process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(server->process.exitCode(), 0);
    }
    server.reset();
}

void TestStompServer::printsStartLineAndListensOnIPv4() {
    // The line leads with two empty lines, exactly as printed.
    QVERIFY(server->output.startsWith(startLine));

    QTcpSocket v4;
    v4.connectToHost(QHostAddress::LocalHost, serverPort);
    QVERIFY(waitUntil([&] { return v4.state() == QAbstractSocket::ConnectedState; }));

    // IPv4 is forced: nobody answers on the IPv6 loopback.
    QTcpSocket v6;
    bool failed = false;
    QObject::connect(&v6, &QTcpSocket::errorOccurred, [&] { failed = true; });
    v6.connectToHost(QHostAddress::LocalHostIPv6, serverPort);
    QVERIFY(waitUntil([&] { return failed || v6.state() == QAbstractSocket::ConnectedState; }));
    QVERIFY(failed);
}

void TestStompServer::connectWithoutAttachment() {
    StompClient client;
    QVERIFY(client.open(QStringLiteral("/session/s1")));
    client.sendFrame(QStringLiteral("CONNECT"),
                     {QStringLiteral("accept-version:1.2"), QStringLiteral("host:shop")});
    const std::optional<QString> reply = client.next();
    QVERIFY(reply);
    QCOMPARE(*reply, connected(QStringLiteral("s1"), QString()));
    QCOMPARE(reply->toUtf8(), bytes("CONNECTED\nversion:1.2\nsession=s1\nattachment:\n\n\0"));
    QVERIFY(server->waitForOutput(
        bytes("\n\n[s1]: received WebSocket packet: \nCONNECT\naccept-version:1.2\nhost:shop\n\n\0\n")));
}

void TestStompServer::subscribeThenHttpPostPushesMessage() {
    StompClient client;
    QVERIFY(client.open(QStringLiteral("/session/s1")));
    client.sendFrame(QStringLiteral("SUBSCRIBE"),
                     {QStringLiteral("id:sub-0"), QStringLiteral("destination:/topic/a")});
    QCOMPARE(client.next(), receipt());

    const HttpReply reply = post("/session/s1", "abc");
    QVERIFY(reply.complete);
    QCOMPARE(reply.statusLine, QByteArray("HTTP/1.1 200 OK"));
    QCOMPARE(reply.body, QByteArray("Done (session:s1)\n"));

    const std::optional<QString> pushed = client.next();
    QVERIFY(pushed);
    QCOMPARE(*pushed, message(QStringLiteral("abc")));
    QCOMPARE(pushed->toUtf8(), bytes("MESSAGE\nAttachment_received:abc\n\n\0"));
    QVERIFY(server->waitForOutput("\n[s1]: Http request\nbody: abc\n"));
}

void TestStompServer::postAfterUnsubscribeShowsOnlyInConnect() {
    StompClient client;
    QVERIFY(client.open(QStringLiteral("/session/s1")));
    client.sendFrame(QStringLiteral("SUBSCRIBE"), {QStringLiteral("id:0"), QStringLiteral("destination:/a")});
    QCOMPARE(client.next(), receipt());
    client.sendFrame(QStringLiteral("UNSUBSCRIBE"), {QStringLiteral("id:0")});
    QCOMPARE(client.next(), receipt());

    const HttpReply reply = post("/session/s1", "abc");
    QCOMPARE(reply.body, QByteArray("Done (session:s1)\n"));
    // Work of one session runs in order, so the CONNECTED answer comes after anything the
    // attachment could have sent: it must be the very next message.
    client.sendFrame(QStringLiteral("CONNECT"));
    QCOMPARE(client.next(), connected(QStringLiteral("s1"), QStringLiteral("abc")));
    QCOMPARE(client.untaken(), 0);
}

void TestStompServer::sendGetsNoReply() {
    StompClient client;
    QVERIFY(client.open(QStringLiteral("/session/s1")));
    client.sendFrame(QStringLiteral("SEND"),
                     {QStringLiteral("destination:/queue/a"), QStringLiteral("receipt:r1")},
                     QStringLiteral("hello"));
    client.sendFrame(QStringLiteral("CONNECT"));
    QCOMPARE(client.next(), connected(QStringLiteral("s1"), QString()));
    QCOMPARE(client.received.size(), 1);
    QVERIFY(server->waitForOutput("\nsomething happened\n"));
}

void TestStompServer::malformedCommandLineGetsError_data() {
    QTest::addColumn<QString>("frame");
    QTest::newRow("lower case") << QStringLiteral("connect\naccept-version:1.2\n\n") + nul();
    QTest::newRow("trailing blank") << QStringLiteral("CONNECT \naccept-version:1.2\n\n") + nul();
    QTest::newRow("carriage return") << QStringLiteral("CONNECT\r\naccept-version:1.2\r\n\r\n") + nul();
    QTest::newRow("STOMP command") << QStringLiteral("STOMP\naccept-version:1.2\nhost:shop\n\n") + nul();
    QTest::newRow("ACK") << QStringLiteral("ACK\nid:1\n\n") + nul();
    QTest::newRow("empty text") << QString();
}

void TestStompServer::malformedCommandLineGetsError() {
    QFETCH(QString, frame);
    StompClient client;
    QVERIFY(client.open(QStringLiteral("/session/s1")));
    client.sendFrame(QStringLiteral("SUBSCRIBE"), {QStringLiteral("id:0"), QStringLiteral("destination:/a")});
    QCOMPARE(client.next(), receipt());

    client.send(frame);
    const std::optional<QString> reply = client.next();
    QVERIFY(reply);
    QCOMPARE(*reply, error());
    QCOMPARE(reply->toUtf8(), bytes("ERROR\n\n\0"));

    // The refused frame changed nothing: still subscribed.
    QCOMPARE(post("/session/s1", "still").body, QByteArray("Done (session:s1)\n"));
    QCOMPARE(client.next(), message(QStringLiteral("still")));
}

void TestStompServer::disconnectReleasesSessionAndStillSendsReceipt() {
    QCOMPARE(post("/session/s1", "before").body, QByteArray("Done (session:s1)\n"));
    StompClient client;
    QVERIFY(client.open(QStringLiteral("/session/s1")));
    client.sendFrame(QStringLiteral("CONNECT"));
    QCOMPARE(client.next(), connected(QStringLiteral("s1"), QStringLiteral("before")));

    client.sendFrame(QStringLiteral("DISCONNECT"), {QStringLiteral("receipt:77")});
    const std::optional<QString> reply = client.next();
    QVERIFY(reply);
    QCOMPARE(reply->toUtf8(), bytes("RECEIPT\n\n\0"));
    QVERIFY(server->waitForOutput("\nDisconnected\n"));
    QVERIFY(server->waitForOutput("\nHTTP session closed: s1\n"));
    QVERIFY(server->output.indexOf("\nDisconnected\n") <
            server->output.indexOf("\nHTTP session closed: s1\n"));

    // The released session is gone: the same id now starts afresh, without the attachment.
    client.sendFrame(QStringLiteral("CONNECT"));
    QCOMPARE(client.next(), connected(QStringLiteral("s1"), QString()));
}

void TestStompServer::sessionsDoNotSeeEachOthersAttachments() {
    StompClient first;
    StompClient second;
    QVERIFY(first.open(QStringLiteral("/session/s1")));
    QVERIFY(second.open(QStringLiteral("/session/s2")));
    first.sendFrame(QStringLiteral("SUBSCRIBE"), {QStringLiteral("id:0"), QStringLiteral("destination:/a")});
    second.sendFrame(QStringLiteral("SUBSCRIBE"), {QStringLiteral("id:0"), QStringLiteral("destination:/a")});
    QCOMPARE(first.next(), receipt());
    QCOMPARE(second.next(), receipt());

    QCOMPARE(post("/session/s1", "for one").body, QByteArray("Done (session:s1)\n"));
    QCOMPARE(post("/session/s2", "for two").body, QByteArray("Done (session:s2)\n"));
    QCOMPARE(first.next(), message(QStringLiteral("for one")));
    QCOMPARE(second.next(), message(QStringLiteral("for two")));

    first.sendFrame(QStringLiteral("CONNECT"));
    second.sendFrame(QStringLiteral("CONNECT"));
    QCOMPARE(first.next(), connected(QStringLiteral("s1"), QStringLiteral("for one")));
    QCOMPARE(second.next(), connected(QStringLiteral("s2"), QStringLiteral("for two")));
    QCOMPARE(first.received.size(), 3);
    QCOMPARE(second.received.size(), 3);
}

void TestStompServer::attachmentPostedRightAfterSubscribeIsPushed() {
    StompClient client;
    QVERIFY(client.open(QStringLiteral("/session/s1")));
    client.sendFrame(QStringLiteral("SUBSCRIBE"), {QStringLiteral("id:0"), QStringLiteral("destination:/a")});
    // As soon as the server has taken the frame in, before its receipt has come back.
    QVERIFY(server->waitForOutput("]: received WebSocket packet: \nSUBSCRIBE\n"));
    QCOMPARE(post("/session/s1", "quick").body, QByteArray("Done (session:s1)\n"));

    QCOMPARE(client.next(), receipt());
    QCOMPARE(client.next(), message(QStringLiteral("quick")));
}

void TestStompServer::attachmentGoesToConnectionThatSpokeLast() {
    StompClient older;
    StompClient newer;
    QVERIFY(older.open(QStringLiteral("/session/s1")));
    QVERIFY(newer.open(QStringLiteral("/session/s1")));
    older.sendFrame(QStringLiteral("SUBSCRIBE"), {QStringLiteral("id:0"), QStringLiteral("destination:/a")});
    QCOMPARE(older.next(), receipt());
    newer.sendFrame(QStringLiteral("CONNECT"));
    QCOMPARE(newer.next(), connected(QStringLiteral("s1"), QString()));

    QCOMPARE(post("/session/s1", "to the newer").body, QByteArray("Done (session:s1)\n"));
    QCOMPARE(newer.next(), message(QStringLiteral("to the newer")));

    // Rebinding to the older connection: its next message is the CONNECTED answer, so the
    // attachment never reached it.
    older.sendFrame(QStringLiteral("CONNECT"));
    QCOMPARE(older.next(), connected(QStringLiteral("s1"), QStringLiteral("to the newer")));
    QCOMPARE(older.received.size(), 2);
}

void TestStompServer::closedConnectionMissesAttachmentQuietly() {
    {
        StompClient gone;
        QVERIFY(gone.open(QStringLiteral("/session/s1")));
        gone.sendFrame(QStringLiteral("SUBSCRIBE"),
                       {QStringLiteral("id:0"), QStringLiteral("destination:/a")});
        QCOMPARE(gone.next(), receipt());
        QVERIFY(gone.close());
    }
    // Everything printed so far has reached us before the mark is taken.
    QVERIFY(server->waitForOutput(subscribePacket));
    const qsizetype before = server->output.size();
    QCOMPARE(post("/session/s1", "late").body, QByteArray("Done (session:s1)\n"));

    StompClient later;
    QVERIFY(later.open(QStringLiteral("/session/s1")));
    later.sendFrame(QStringLiteral("CONNECT"));
    QCOMPARE(later.next(), connected(QStringLiteral("s1"), QStringLiteral("late")));
    // Nothing was reported about the lost push: only the request and the next packet.
    const QByteArray expected =
        "[s1]: Http request\nbody: late\n\n[s1]: received WebSocket packet: \nCONNECT\n";
    QVERIFY(waitUntil([&] { return server->output.size() >= before + expected.size(); }));
    QCOMPARE(server->output.mid(before, expected.size()), expected);
}

void TestStompServer::nonUtf8BodyIsIgnored() {
    QCOMPARE(post("/session/s1", "kept").body, QByteArray("Done (session:s1)\n"));
    StompClient client;
    QVERIFY(client.open(QStringLiteral("/session/s1")));
    client.sendFrame(QStringLiteral("SUBSCRIBE"), {QStringLiteral("id:0"), QStringLiteral("destination:/a")});
    QCOMPARE(client.next(), receipt());

    QVERIFY(server->waitForOutput(subscribePacket));
    const qsizetype before = server->output.size();
    const HttpReply reply = post("/session/s1", "\xff\xfe\xc3(");
    QCOMPARE(reply.statusLine, QByteArray("HTTP/1.1 200 OK"));
    QCOMPARE(reply.body, QByteArray("Done (session:s1)\n"));

    client.sendFrame(QStringLiteral("CONNECT"));
    QCOMPARE(client.next(), connected(QStringLiteral("s1"), QStringLiteral("kept")));
    QCOMPARE(client.received.size(), 2);
    // The request is noted, its body is not.
    const QByteArray expected = "[s1]: Http request\n\n[s1]: received WebSocket packet: \nCONNECT\n";
    QVERIFY(waitUntil([&] { return server->output.size() >= before + expected.size(); }));
    QCOMPARE(server->output.mid(before, expected.size()), expected);
}

void TestStompServer::stompSubprotocolIsAgreed_data() {
    QTest::addColumn<QStringList>("offered");
    QTest::addColumn<QString>("agreed");
    QTest::newRow("1.0") << QStringList{QStringLiteral("v10.stomp")} << QStringLiteral("v10.stomp");
    QTest::newRow("1.1") << QStringList{QStringLiteral("v11.stomp")} << QStringLiteral("v11.stomp");
    QTest::newRow("1.2") << QStringList{QStringLiteral("v12.stomp")} << QStringLiteral("v12.stomp");
    QTest::newRow("browser offer") << QStringList{QStringLiteral("v12.stomp"), QStringLiteral("v11.stomp"),
                                                  QStringLiteral("v10.stomp")}
                                   << QStringLiteral("v12.stomp");
    QTest::newRow("none") << QStringList{} << QString();
}

void TestStompServer::stompSubprotocolIsAgreed() {
    QFETCH(QStringList, offered);
    QFETCH(QString, agreed);
    StompClient client;
    QVERIFY(client.open(QStringLiteral("/session/s1"), offered));
    QCOMPARE(client.socket.subprotocol(), agreed);
    client.sendFrame(QStringLiteral("CONNECT"));
    QCOMPARE(client.next(), connected(QStringLiteral("s1"), QString()));
}

void TestStompServer::sessionIdIsTakenFromPath() {
    QCOMPARE(post("/session/shop%20one", "x").body, QByteArray("Done (session:shop one)\n"));
    StompClient client;
    QVERIFY(client.open(QStringLiteral("/session/shop%20one")));
    client.sendFrame(QStringLiteral("CONNECT"));
    QCOMPARE(client.next(), connected(QStringLiteral("shop one"), QStringLiteral("x")));
}

void TestStompServer::otherPathsAreNotFound() {
    for (const QByteArray &target : {QByteArray("/"), QByteArray("/session/"), QByteArray("/session"),
                                     QByteArray("/sessions/s1"), QByteArray("/x/session/s1")}) {
        const HttpReply reply = post(target, "abc");
        QVERIFY2(reply.complete, target.constData());
        QCOMPARE(reply.statusLine, QByteArray("HTTP/1.1 404 Not Found"));
    }
    StompClient client;
    QVERIFY(!client.open(QStringLiteral("/")));
    StompClient emptyId;
    QVERIFY(!emptyId.open(QStringLiteral("/session/")));

    // A frame on a real session, printed after anything the refused requests could have
    // printed: only then is the absence of a request line telling.
    StompClient marker;
    QVERIFY(marker.open(QStringLiteral("/session/s1")));
    marker.sendFrame(QStringLiteral("CONNECT"));
    QVERIFY(marker.next());
    QVERIFY(server->waitForOutput("]: received WebSocket packet: \nCONNECT\n"));
    QVERIFY(!server->output.contains("Http request"));
}

void TestStompServer::onlyPostSetsAttachment() {
    const HttpReply reply = httpRequest("GET", "/session/s1", {}, false);
    QVERIFY(reply.complete);
    QCOMPARE(reply.statusLine, QByteArray("HTTP/1.1 405 Method Not Allowed"));
    StompClient client;
    QVERIFY(client.open(QStringLiteral("/session/s1")));
    client.sendFrame(QStringLiteral("CONNECT"));
    QCOMPARE(client.next(), connected(QStringLiteral("s1"), QString()));
    QVERIFY(server->waitForOutput("]: received WebSocket packet: \nCONNECT\n"));
    QVERIFY(!server->output.contains("Http request"));
}

void TestStompServer::postWithoutHostIsDone() {
    // HTTP/1.0 clients and hand-written tools leave the Host header out.
    for (const QByteArray &version : {QByteArray("1.1"), QByteArray("1.0")}) {
        const HttpReply reply =
            rawHttp({"POST /session/s1 HTTP/" + version + "\r\nContent-Length: 3\r\n\r\nabc"});
        QVERIFY2(reply.complete, version.constData());
        QCOMPARE(reply.statusLine, QByteArray("HTTP/1.1 200 OK"));
        QCOMPARE(reply.body, QByteArray("Done (session:s1)\n"));
    }
    StompClient client;
    QVERIFY(client.open(QStringLiteral("/session/s1")));
    client.sendFrame(QStringLiteral("CONNECT"));
    QCOMPARE(client.next(), connected(QStringLiteral("s1"), QStringLiteral("abc")));
    // Other methods and paths are answered as before.
    QCOMPARE(rawHttp({"GET /session/s1 HTTP/1.1\r\n\r\n"}).statusLine,
             QByteArray("HTTP/1.1 405 Method Not Allowed"));
    QCOMPARE(rawHttp({"POST /other HTTP/1.1\r\nHost: x\r\nContent-Length: 1\r\n\r\nx"}).statusLine,
             QByteArray("HTTP/1.1 404 Not Found"));
}

void TestStompServer::chunkedPostIsDone_data() {
    QTest::addColumn<QList<QByteArray>>("pieces");
    QTest::addColumn<bool>("continued");
    const QByteArray head =
        "POST /session/s1 HTTP/1.1\r\nHost: 127.0.0.1:8080\r\nTransfer-Encoding: chunked\r\n";
    const QByteArray body = "3\r\n\xec\xa3\xbc\r\n6;name=value\r\n\xeb\xac\xb8 ok\r\n0\r\n\r\n";
    QTest::newRow("one write") << QList<QByteArray>{head + "\r\n" + body} << false;
    QTest::newRow("chunk by chunk") << QList<QByteArray>{head + "\r\n", body.left(10), body.mid(10, 9),
                                                         body.mid(19)}
                                    << false;
    // curl asks first, then sends the body once told to go on.
    QTest::newRow("Expect: 100-continue")
        << QList<QByteArray>{head + "Expect: 100-continue\r\n\r\n", body} << true;
    QTest::newRow("trailer and upper-case size")
        << QList<QByteArray>{head + "\r\n3\r\n\xec\xa3\xbc\r\n6\r\n\xeb\xac\xb8 ok\r\n0\r\nX-Sum: 1\r\n\r\n"}
        << false;
}

void TestStompServer::chunkedPostIsDone() {
    QFETCH(QList<QByteArray>, pieces);
    QFETCH(bool, continued);
    QByteArray interim;
    const HttpReply reply = rawHttp(pieces, &interim);
    QVERIFY(reply.complete);
    QCOMPARE(reply.statusLine, QByteArray("HTTP/1.1 200 OK"));
    QCOMPARE(reply.body, QByteArray("Done (session:s1)\n"));
    QCOMPARE(!interim.isEmpty(), continued);
    QVERIFY(server->waitForOutput("[s1]: Http request\nbody: 주문 ok\n"));
    StompClient client;
    QVERIFY(client.open(QStringLiteral("/session/s1")));
    client.sendFrame(QStringLiteral("CONNECT"));
    QCOMPARE(client.next(), connected(QStringLiteral("s1"), QStringLiteral("주문 ok")));
}

void TestStompServer::frameInTheSameWriteAsTheHandshakeIsAnswered() {
    RawWebSocket client;
    QVERIFY(client.connect(serverPort));
    client.write(RawWebSocket::handshake("/session/s1", "127.0.0.1:8080") +
                 RawWebSocket::text(bytes("CONNECT\naccept-version:1.2\n\n\0")) +
                 RawWebSocket::text(bytes("SUBSCRIBE\nid:0\ndestination:/a\n\n\0")));
    QVERIFY(client.awaitAnswerHead(deadlineMs).startsWith("HTTP/1.1 101"));
    const QList<RawWebSocket::Frame> frames = client.awaitFrames(2, deadlineMs);
    QCOMPARE(frames.size(), 2);
    QCOMPARE(frames[0].payload, connected(QStringLiteral("s1"), QString()).toUtf8());
    QCOMPARE(frames[1].payload, receipt().toUtf8());
}

void TestStompServer::portTakenEndsWithError() {
    // The server from init() holds port 8080; a second one cannot have it.
    ServerProcess second;
    second.start();
    QVERIFY(second.waitForFinished());
    QCOMPARE(second.process.exitStatus(), QProcess::NormalExit);
    QVERIFY(second.process.exitCode() != 0);
    QVERIFY2(second.output.startsWith("STOMP test server could not start on port 8080: "),
             second.output.constData());
    QVERIFY(!second.output.contains("Server has started"));

    // The first one carries on.
    StompClient client;
    QVERIFY(client.open(QStringLiteral("/session/s1")));
    client.sendFrame(QStringLiteral("CONNECT"));
    QCOMPARE(client.next(), connected(QStringLiteral("s1"), QString()));
}

void TestStompServer::terminationClosesLiveSessions() {
    QCOMPARE(post("/session/a", "1").body, QByteArray("Done (session:a)\n"));
    QCOMPARE(post("/session/b", "2").body, QByteArray("Done (session:b)\n"));
    QVERIFY(server->waitForOutput("\n[b]: Http request\nbody: 2\n"));
    QVERIFY(!server->output.contains("HTTP session closed"));
    QVERIFY(server->stop());
    QCOMPARE(server->process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(server->process.exitCode(), 0);
    QVERIFY(server->output.contains("\nHTTP session closed: a\n"));
    QVERIFY(server->output.contains("\nHTTP session closed: b\n"));
}

QTEST_GUILESS_MAIN(TestStompServer)
#include "tst_stompserver.moc"
