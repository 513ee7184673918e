// The path-routing HTTP front on its own: what a browser, curl or a WebSocket client
// gets back for each kind of request.
#include "httpserver.h"
#include "wait.h"

#include <QTcpSocket>
#include <QWebSocket>
#include <QWebSocketHandshakeOptions>
#include <QtTest>

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

    void chunkedBodyIsRefused() {
        const QByteArray answer =
            exchange(server->serverPort(), "POST /session/s1 HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: "
                                           "chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n");
        QVERIFY2(answer.startsWith("HTTP/1.1 411"), answer.constData());
        QVERIFY(httpRequests.isEmpty());
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
