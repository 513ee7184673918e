// The path-routing HTTP front on its own: what a browser, curl or a WebSocket client
// gets back for each kind of request.
#include "forked.h"
#include "net/chunkedbody.h"
#include "net/httpserver.h"
#include "net/keepaccepting.h"
#include "rawwebsocket.h"
#include "wait.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <QWebSocket>
#include <QWebSocketHandshakeOptions>
#include <QtTest>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Sends raw bytes and returns everything the server answers until it closes.
QByteArray exchange(quint16 port, const QByteArray &request) {
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    if (!socket.waitForConnected(2000))
        return {};
    socket.write(request);
    QByteArray answer;
    waitUntil(
        [&] {
            answer += socket.readAll();
            return socket.state() == QAbstractSocket::UnconnectedState;
        },
        3000);
    return answer + socket.readAll();
}

} // namespace

class HttpServerTest : public QObject {
    Q_OBJECT
    std::unique_ptr<HttpServer> server;
    QList<HttpRequest> httpRequests;
    QList<QWebSocket *> upgraded;

private slots:
    // A server that has accepted before, so that Qt's engine has already seen "try again
    // later", runs out of descriptors: it says so, stops taking connections instead of
    // spinning, and takes the waiting one once a descriptor is free again.
    void serverThatRunsOutOfDescriptorsSaysSoAndResumes() {
        const ChildOutcome outcome = runInChild([] {
            dup2(STDERR_FILENO, STDOUT_FILENO); // the lines come back with standard error
            auto fail = [](const char *why) {
                std::fprintf(stderr, "FAILED: %s\n", why);
                std::fflush(stderr);
                _exit(3);
            };
            QTcpServer server;
            new KeepAccepting(&server, QStringLiteral("test server"));
            int accepted = 0;
            QList<QTcpSocket *> taken;
            QObject::connect(&server, &QTcpServer::newConnection, [&] {
                while (QTcpSocket *socket = server.nextPendingConnection()) {
                    taken << socket;
                    ++accepted;
                }
            });
            if (!server.listen(QHostAddress::LocalHost))
                fail("no listening socket");
            sockaddr_in to{};
            to.sin_family = AF_INET;
            to.sin_port = htons(server.serverPort());
            to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            const auto connectRaw = [&](int fd) {
                return ::connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0;
            };
            int clients[3];
            for (int &fd : clients)
                fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (!connectRaw(clients[0]) || !waitUntil([&] { return accepted == 1; }, 3000))
                fail("the first connection was not accepted");

            // Every descriptor taken but one, which the next connection will take.
            rlimit limit{};
            getrlimit(RLIMIT_NOFILE, &limit);
            limit.rlim_cur = 256;
            setrlimit(RLIMIT_NOFILE, &limit);
            QList<int> filler;
            for (int fd; (fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
                filler << fd;
            ::close(filler.takeLast());
            if (!connectRaw(clients[1]) || !waitUntil([&] { return accepted == 2; }, 3000))
                fail("the second connection was not accepted");
            if (!connectRaw(clients[2]))
                fail("the third client could not connect");
            QCoreApplication::processEvents();
            std::fflush(stdout);
            if (accepted != 2)
                fail("a connection was accepted with no descriptor free");
            // Two free: the waiting connection takes one, and one is left.
            ::close(filler.takeLast());
            ::close(filler.takeLast());
            if (!waitUntil([&] { return accepted == 3; }, 3000))
                fail("the waiting connection was not taken once a descriptor was free");
            std::fflush(stdout);
        });
        QVERIFY2(outcome.exitCode == 0, outcome.standardError.constData());
        // The child has the fixture's server too: every server of a process is paused together.
        QStringList lines;
        for (const QByteArray &line : outcome.standardError.split('\n'))
            if (line.startsWith("test server on port "))
                lines << QString::fromUtf8(line).replace(QRegularExpression(QStringLiteral("port \\d+")),
                                                         QStringLiteral("port N"));
        QCOMPARE(lines, (QStringList{"test server on port N cannot accept a connection: Out of resources; "
                                     "trying again every second",
                                     "test server on port N accepts connections again"}));
    }

    void init() {
        httpRequests.clear();
        upgraded.clear();
        server = std::make_unique<HttpServer>(QStringLiteral("test"));
        server->addWebSocketRoute(HttpServer::exactPath("/"),
                                  [this](QWebSocket *socket) { upgraded << socket; });
        server->addWebSocketRoute([](const QByteArray &path) { return path.startsWith("/session/"); },
                                  [this](QWebSocket *socket) { upgraded << socket; });
        server->addHttpRoute([](const QByteArray &path) { return path.startsWith("/session/"); },
                             [this](const HttpRequest &request) {
                                 httpRequests << request;
                                 return HttpResponse::ok("Done\n");
                             });
        QVERIFY(server->listen(QHostAddress::LocalHost, 0));
    }

    void unknownPathIs404() {
        QVERIFY(exchange(server->serverPort(), "GET /nothing HTTP/1.1\r\nHost: x\r\n\r\n")
                    .startsWith("HTTP/1.1 404 Not Found\r\n"));
        QVERIFY(
            exchange(server->serverPort(), "POST /other HTTP/1.1\r\nHost: x\r\nContent-Length: 1\r\n\r\nx")
                .startsWith("HTTP/1.1 404"));
        QVERIFY(upgraded.isEmpty());
    }

    void plainRequestForAWebSocketPathIs400() {
        const QByteArray answer = exchange(server->serverPort(), "GET / HTTP/1.1\r\nHost: x\r\n\r\n");
        QVERIFY2(answer.startsWith("HTTP/1.1 400 Bad Request\r\n"), answer.constData());
        const QByteArray noKey =
            exchange(server->serverPort(),
                     "GET / HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n\r\n");
        QVERIFY2(noKey.startsWith("HTTP/1.1 400"), noKey.constData());
    }

    void postBodyReachesTheHandlerWhole() {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, server->serverPort());
        QVERIFY(socket.waitForConnected(2000));
        // The body comes in two pieces, the second a little later.
        socket.write("POST /session/s1 HTTP/1.1\r\nHost: x\r\nContent-Length: 11\r\n\r\nhello");
        socket.flush();
        keepRunningFor(100);
        QVERIFY(httpRequests.isEmpty());
        socket.write(" world");
        QByteArray answer;
        QVERIFY(waitUntil(
            [&] {
                answer += socket.readAll();
                return socket.state() == QAbstractSocket::UnconnectedState;
            },
            3000));
        QVERIFY(answer.startsWith("HTTP/1.1 200 OK\r\n"));
        QVERIFY(answer.endsWith("\r\n\r\nDone\n"));
        QCOMPARE(httpRequests.size(), 1);
        QCOMPARE(httpRequests.first().method, QByteArray("POST"));
        QCOMPARE(httpRequests.first().path, QByteArray("/session/s1"));
        QCOMPARE(httpRequests.first().body, QByteArray("hello world"));
    }

    void chunkedBodyIsDecoded() {
        const QByteArray answer =
            exchange(server->serverPort(), "POST /session/s1 HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: "
                                           "chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n");
        QVERIFY2(answer.startsWith("HTTP/1.1 200 OK\r\n"), answer.constData());
        QCOMPARE(httpRequests.size(), 1);
        QCOMPARE(httpRequests.first().body, QByteArray("abc"));
    }

    void chunkedBodiesThatCannotBeReadAreRefused_data() {
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<QByteArray>("status");
        const QByteArray head = "POST /session/s1 HTTP/1.1\r\nHost: x\r\n";
        QTest::newRow("size not hexadecimal")
            << head + "Transfer-Encoding: chunked\r\n\r\nxyz\r\nabc\r\n0\r\n\r\n"
            << QByteArray("400");
        QTest::newRow("chunk longer than its size")
            << head + "Transfer-Encoding: chunked\r\n\r\n2\r\nabc\r\n0\r\n\r\n"
            << QByteArray("400");
        QTest::newRow("another coding") << head + "Transfer-Encoding: gzip\r\n\r\nabc" << QByteArray("501");
        QTest::newRow("over the limit") << head + "Transfer-Encoding: chunked\r\n\r\n4000000\r\n"
                                        << QByteArray("413");
    }
    void chunkedBodiesThatCannotBeReadAreRefused() {
        QFETCH(QByteArray, request);
        QFETCH(QByteArray, status);
        server->setMaxIncomingMessageSize(1024 * 1024);
        const QByteArray answer = exchange(server->serverPort(), request);
        QVERIFY2(answer.startsWith("HTTP/1.1 " + status), answer.constData());
        QVERIFY(httpRequests.isEmpty());
    }

    void chunkedBodyDecoding_data() {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<int>("state");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("consumed");
        using S = ChunkedBody::State;
        QTest::newRow("empty body") << QByteArray("0\r\n\r\n") << int(S::Complete) << QByteArray() << 5;
        QTest::newRow("two chunks") << QByteArray("3\r\nabc\r\nA\r\n0123456789\r\n0\r\n\r\nrest")
                                    << int(S::Complete) << QByteArray("abc0123456789") << 28;
        QTest::newRow("extension and trailer")
            << QByteArray("3;x=y\r\nabc\r\n0\r\nT: 1\r\n\r\n") << int(S::Complete) << QByteArray("abc") << 23;
        QTest::newRow("no final chunk yet")
            << QByteArray("3\r\nabc\r\n") << int(S::Incomplete) << QByteArray() << 0;
        QTest::newRow("chunk not all there")
            << QByteArray("5\r\nab") << int(S::Incomplete) << QByteArray() << 0;
        QTest::newRow("size line cut") << QByteArray("1") << int(S::Incomplete) << QByteArray() << 0;
        QTest::newRow("trailer not ended")
            << QByteArray("0\r\nT: 1\r\n") << int(S::Incomplete) << QByteArray() << 0;
        QTest::newRow("no size") << QByteArray("\r\nabc\r\n") << int(S::Malformed) << QByteArray() << 0;
        QTest::newRow("negative size")
            << QByteArray("-3\r\nabc\r\n") << int(S::Malformed) << QByteArray() << 0;
        QTest::newRow("chunk not followed by CRLF")
            << QByteArray("3\r\nabcd\r\n0\r\n\r\n") << int(S::Malformed) << QByteArray() << 0;
        QTest::newRow("size beyond the limit")
            << QByteArray("401\r\n") << int(S::TooLarge) << QByteArray() << 0;
        QTest::newRow("huge size") << QByteArray("ffffffffffffffff\r\n") << int(S::Malformed) << QByteArray()
                                   << 0;
    }
    void chunkedBodyDecoding() {
        QFETCH(QByteArray, data);
        QFETCH(int, state);
        QFETCH(QByteArray, body);
        QFETCH(int, consumed);
        const ChunkedBody decoded = ChunkedBody::decode(data, 1024);
        QCOMPARE(int(decoded.state), state);
        QCOMPARE(decoded.body, body);
        QCOMPARE(decoded.consumed, qsizetype(consumed));
    }

    void plainRequestWithoutHostReachesItsRoute() {
        const QByteArray answer =
            exchange(server->serverPort(), "POST /session/s1 HTTP/1.0\r\nContent-Length: 2\r\n\r\nhi");
        QVERIFY2(answer.startsWith("HTTP/1.1 200 OK\r\n"), answer.constData());
        QCOMPARE(httpRequests.size(), 1);
        QCOMPARE(httpRequests.first().body, QByteArray("hi"));
        // Nothing else goes without one.
        QVERIFY(exchange(server->serverPort(), "POST /other HTTP/1.1\r\nContent-Length: 1\r\n\r\nx")
                    .startsWith("HTTP/1.1 400"));
    }

    void clientThatWaitsForContinueIsAskedForItsBody() {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, server->serverPort());
        QVERIFY(socket.waitForConnected(2000));
        socket.write(
            "POST /session/s1 HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\nExpect: 100-continue\r\n\r\n");
        QByteArray answer;
        QVERIFY(waitUntil(
            [&] {
                answer += socket.readAll();
                return answer.contains("\r\n\r\n");
            },
            3000));
        QCOMPARE(answer, QByteArray("HTTP/1.1 100 Continue\r\n\r\n"));
        socket.write("abc");
        QVERIFY(waitUntil(
            [&] {
                answer += socket.readAll();
                return socket.state() == QAbstractSocket::UnconnectedState;
            },
            3000));
        QVERIFY(answer.contains("HTTP/1.1 200 OK\r\n"));
        QCOMPARE(httpRequests.first().body, QByteArray("abc"));
    }

    void framesBehindTheHandshakeInOneWriteReachTheRoute() {
        QStringList texts;
        server->addWebSocketRoute(HttpServer::exactPath("/frames"), [&](QWebSocket *socket) {
            connect(socket, &QWebSocket::textMessageReceived, this, [&](const QString &t) { texts << t; });
        });
        RawWebSocket client;
        QVERIFY(client.connect(server->serverPort()));
        client.write(RawWebSocket::handshake("/frames") + RawWebSocket::text("one") +
                     RawWebSocket::text(QByteArray(300, 'x')) + RawWebSocket::text("th"));
        QVERIFY(waitUntil([&] { return texts.size() == 3; }, 3000));
        QCOMPARE(texts, (QStringList{"one", QString(300, u'x'), "th"}));
        QVERIFY(client.awaitAnswerHead(3000).startsWith("HTTP/1.1 101"));
    }

    void closeKeepingReadOpenReadsUntilThePeerAnswers() {
        QList<QPointer<QWebSocket>> sockets;
        QStringList texts;
        server->addWebSocketRoute(HttpServer::exactPath("/linger"), [&](QWebSocket *socket) {
            sockets << socket;
            connect(socket, &QWebSocket::textMessageReceived, this, [&](const QString &t) { texts << t; });
        });
        RawWebSocket client;
        QVERIFY(client.connect(server->serverPort()));
        client.write(RawWebSocket::handshake("/linger"));
        QVERIFY(client.awaitAnswerHead(3000).startsWith("HTTP/1.1 101"));
        QVERIFY(waitUntil([&] { return sockets.size() == 1; }, 3000));
        server->closeKeepingReadOpen(sockets.first());
        const auto closing = client.awaitFrames(1, 3000);
        QCOMPARE(closing.size(), 1);
        QCOMPARE(closing.first().closeCode(), 1000);
        client.write(RawWebSocket::text("still here"));
        QVERIFY(waitUntil([&] { return texts.size() == 1; }, 3000));
        QCOMPARE(texts.first(), QStringLiteral("still here"));
        QVERIFY(sockets.first()->sendTextMessage(QStringLiteral("heard")) > 0);
        const auto answer = client.awaitFrames(1, 3000);
        QCOMPARE(answer.size(), 1);
        QCOMPARE(answer.first().payload, QByteArray("heard"));
        // The answer to the close frame ends it, without a second close frame.
        client.write(RawWebSocket::closeReply());
        QVERIFY(waitUntil([&] { return client.socket.state() == QAbstractSocket::UnconnectedState; }, 3000));
        QCOMPARE(client.awaitFrames(1, 0).size(), 0);
        QVERIFY(waitUntil([&] { return sockets.first().isNull(); }, 3000));

        // A peer that hangs up instead is let go as well.
        RawWebSocket second;
        QVERIFY(second.connect(server->serverPort()));
        second.write(RawWebSocket::handshake("/linger"));
        QVERIFY(second.awaitAnswerHead(3000).startsWith("HTTP/1.1 101"));
        QVERIFY(waitUntil([&] { return sockets.size() == 2; }, 3000));
        server->closeKeepingReadOpen(sockets.last());
        QCOMPARE(second.awaitFrames(1, 3000).size(), 1);
        second.socket.disconnectFromHost();
        QVERIFY(waitUntil([&] { return sockets.last().isNull(); }, 3000));
    }

    void oversizedBodyIsRefused() {
        server->setMaxIncomingMessageSize(10);
        const QByteArray answer =
            exchange(server->serverPort(),
                     "POST /session/s1 HTTP/1.1\r\nHost: x\r\nContent-Length: 11\r\n\r\nhello world");
        QVERIFY2(answer.startsWith("HTTP/1.1 413"), answer.constData());
        QVERIFY(httpRequests.isEmpty());
    }

    void endlessHeadIsRefused() {
        QByteArray request = "GET / HTTP/1.1\r\nHost: x\r\n";
        while (request.size() < 70 * 1024)
            request += "X-Filler: 0123456789012345678901234567890123456789\r\n";
        const QByteArray answer = exchange(server->serverPort(), request);
        QVERIFY2(answer.startsWith("HTTP/1.1 431"), answer.left(40).constData());
    }

    void missingHostIs400() {
        QVERIFY(exchange(server->serverPort(), "GET / HTTP/1.1\r\n\r\n").startsWith("HTTP/1.1 400"));
        QVERIFY(exchange(server->serverPort(), "NONSENSE\r\n\r\n").startsWith("HTTP/1.1 400"));
    }

    void upgradeOnASessionPathReachesItsHandler() {
        QWebSocket client;
        client.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/session/abc").arg(server->serverPort())));
        QVERIFY(waitUntil([&] { return upgraded.size() == 1; }, 3000));
        QCOMPARE(upgraded.first()->requestUrl().path(), QStringLiteral("/session/abc"));
        QVERIFY(httpRequests.isEmpty());
    }

    void subprotocolIsAgreedWhenOffered() {
        server->setSupportedSubprotocols({QStringLiteral("v12.stomp")});
        QWebSocket client;
        QWebSocketHandshakeOptions options;
        options.setSubprotocols({QStringLiteral("v12.stomp")});
        client.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/").arg(server->serverPort())), options);
        QVERIFY(waitUntil([&] { return client.state() == QAbstractSocket::ConnectedState; }, 3000));
        QCOMPARE(client.subprotocol(), QStringLiteral("v12.stomp"));
    }
};

QTEST_GUILESS_MAIN(HttpServerTest)
#include "tst_httpserver.moc"
