#pragma once

#include <QByteArray>
#include <QHash>
#include <QHostAddress>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <functional>
#include <vector>

class HttpConnection;
class HttpConnectionServer;
class QTcpSocket;
class QWebSocket;
class QWebSocketServer;

struct HttpRequest {
    QByteArray method;
    QByteArray path;                      // the request target without its query
    QMap<QByteArray, QByteArray> headers; // names in lower case
    QByteArray body;

    QByteArray header(const QByteArray &name) const { return headers.value(name.toLower()); }
    bool isWebSocketUpgrade() const;
};

struct HttpResponse {
    int status = 200;
    QByteArray reason = "OK";
    QByteArray contentType = "text/plain; charset=utf-8";
    QByteArray body;

    static HttpResponse ok(const QByteArray &body);
    static HttpResponse error(int status, const QByteArray &reason);
    QByteArray serialized() const;
};

// A small path-routing HTTP front over QTcpServer. It reads the request head itself,
// decides by path, and only then either answers plain HTTP or hands the untouched
// connection to QWebSocketServer for the upgrade. That way only registered paths are
// ever upgraded, and everything else gets an ordinary HTTP answer.
class HttpServer : public QObject {
    Q_OBJECT
public:
    using PathMatcher = std::function<bool(const QByteArray &path)>;
    using WebSocketHandler = std::function<void(QWebSocket *socket)>;
    using HttpHandler = std::function<HttpResponse(const HttpRequest &request)>;
    using OriginCheck = std::function<bool(const QByteArray &origin)>;

    static constexpr qint64 defaultMaxMessageSize = 16 * 1024 * 1024;
    static constexpr int defaultHandshakeTimeoutMs = 10'000;

    explicit HttpServer(const QString &serverName, QObject *parent = nullptr);
    ~HttpServer() override;

    static PathMatcher exactPath(const QByteArray &path);

    // The handler receives every upgraded connection on a matching path, already
    // limited in message size; the socket deletes itself when it disconnects.
    void addWebSocketRoute(PathMatcher matches, WebSocketHandler handler);
    // Plain requests on a matching path, with their body (Content-Length or chunked). Such a
    // request needs no Host header: plain HTTP clients of old leave it out.
    void addHttpRoute(PathMatcher matches, HttpHandler handler);

    // Sends the close frame, as QWebSocket::close() does, but keeps reading the connection
    // until the peer answers the close frame or hangs up: frames it sent before it saw the
    // close frame still arrive. A browser answers at once and is gone as before.
    void closeKeepingReadOpen(QWebSocket *socket);

    void setOriginCheck(OriginCheck check) { originCheck = std::move(check); }
    void setSupportedSubprotocols(const QStringList &protocols);
    void setMaxIncomingMessageSize(qint64 bytes) { maxMessageSize = bytes; }
    void setHandshakeTimeout(int milliseconds) { handshakeTimeoutMs = milliseconds; }

    bool listen(const QHostAddress &address, quint16 port);
    QString errorString() const;
    quint16 serverPort() const;
    QHostAddress serverAddress() const;
    bool isListening() const;

private:
    struct WebSocketRoute {
        PathMatcher matches;
        WebSocketHandler handler;
    };
    struct HttpRoute {
        PathMatcher matches;
        HttpHandler handler;
    };

    void acceptPending();
    void inspect(HttpConnection *socket);
    void dispatch(HttpConnection *socket, HttpRequest request, qsizetype headLength);
    void upgrade(HttpConnection *socket, qsizetype headLength);
    void answerPlainRequest(HttpConnection *socket, HttpRequest request, qsizetype headLength);
    void answer(QTcpSocket *socket, const HttpResponse &response);
    void takeUpgraded();
    HttpConnection *connectionOf(QWebSocket *socket);
    const WebSocketRoute *webSocketRouteFor(const QByteArray &path) const;
    const HttpRoute *httpRouteFor(const QByteArray &path) const;

    HttpConnectionServer *tcpServer;
    QWebSocketServer *webSocketServer;
    // Handed to the WebSocket server, handshake not yet answered.
    QList<QPointer<HttpConnection>> upgrading;
    // The connection under each upgraded socket (QWebSocket does not tell).
    QHash<QWebSocket *, QPointer<HttpConnection>> upgraded;
    std::vector<WebSocketRoute> webSocketRoutes;
    std::vector<HttpRoute> httpRoutes;
    OriginCheck originCheck;
    qint64 maxMessageSize = defaultMaxMessageSize;
    int handshakeTimeoutMs = defaultHandshakeTimeoutMs;
};
