#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QMap>
#include <QObject>
#include <QStringList>
#include <QTcpServer>
#include <functional>
#include <vector>

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
    // Plain requests with a body (Content-Length) on a matching path.
    void addHttpRoute(PathMatcher matches, HttpHandler handler);

    void setOriginCheck(OriginCheck check) { originCheck = std::move(check); }
    void setSupportedSubprotocols(const QStringList &protocols);
    void setMaxIncomingMessageSize(qint64 bytes) { maxMessageSize = bytes; }
    void setHandshakeTimeout(int milliseconds) { handshakeTimeoutMs = milliseconds; }

    bool listen(const QHostAddress &address, quint16 port);
    QString errorString() const { return tcpServer.errorString(); }
    quint16 serverPort() const { return tcpServer.serverPort(); }
    QHostAddress serverAddress() const { return tcpServer.serverAddress(); }
    bool isListening() const { return tcpServer.isListening(); }

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
    void inspect(QTcpSocket *socket);
    void dispatch(QTcpSocket *socket, HttpRequest request, qsizetype headLength);
    void answer(QTcpSocket *socket, const HttpResponse &response);
    void takeUpgraded();
    const WebSocketRoute *webSocketRouteFor(const QByteArray &path) const;
    const HttpRoute *httpRouteFor(const QByteArray &path) const;

    QTcpServer tcpServer;
    QWebSocketServer *webSocketServer;
    std::vector<WebSocketRoute> webSocketRoutes;
    std::vector<HttpRoute> httpRoutes;
    OriginCheck originCheck;
    qint64 maxMessageSize = defaultMaxMessageSize;
    int handshakeTimeoutMs = defaultHandshakeTimeoutMs;
};
