#include "httpserver.h"

#include <QTcpSocket>
#include <QTimer>
#include <QUrl>
#include <QWebSocket>
#include <QWebSocketServer>

namespace {

// A request head larger than this is not a POS or a STOMP client; refuse it rather than
// buffer without end.
constexpr qsizetype maxHeadSize = 64 * 1024;

const char *const timerProperty = "handshakeTimer";

struct ParsedHead {
    bool ok = false;
    HttpRequest request;
};

ParsedHead parseHead(const QByteArray &head) {
    ParsedHead parsed;
    const QList<QByteArray> lines = head.split('\n');
    if (lines.isEmpty())
        return parsed;
    const QList<QByteArray> startLine = lines.first().trimmed().split(' ');
    if (startLine.size() != 3 || !startLine[2].startsWith("HTTP/1."))
        return parsed;
    parsed.request.method = startLine[0];
    QByteArray target = startLine[1];
    if (const qsizetype q = target.indexOf('?'); q >= 0)
        target.truncate(q);
    parsed.request.path = target;
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines[i].trimmed();
        if (line.isEmpty())
            continue;
        const qsizetype colon = line.indexOf(':');
        if (colon <= 0)
            return parsed;
        parsed.request.headers.insert(line.left(colon).trimmed().toLower(), line.mid(colon + 1).trimmed());
    }
    parsed.ok = true;
    return parsed;
}

} // namespace

bool HttpRequest::isWebSocketUpgrade() const {
    return header("upgrade").toLower().contains("websocket");
}

HttpResponse HttpResponse::ok(const QByteArray &body) {
    HttpResponse response;
    response.body = body;
    return response;
}

HttpResponse HttpResponse::error(int status, const QByteArray &reason) {
    HttpResponse response;
    response.status = status;
    response.reason = reason;
    response.body = QByteArray::number(status) + ' ' + reason + '\n';
    return response;
}

QByteArray HttpResponse::serialized() const {
    QByteArray out = "HTTP/1.1 " + QByteArray::number(status) + ' ' + reason + "\r\n";
    out += "Content-Type: " + contentType + "\r\n";
    out += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    out += "Connection: close\r\n\r\n";
    out += body;
    return out;
}

HttpServer::HttpServer(const QString &serverName, QObject *parent)
    : QObject(parent),
      webSocketServer(new QWebSocketServer(serverName, QWebSocketServer::NonSecureMode, this)) {
    connect(&tcpServer, &QTcpServer::newConnection, this, &HttpServer::acceptPending);
    connect(webSocketServer, &QWebSocketServer::newConnection, this, &HttpServer::takeUpgraded);
}

HttpServer::~HttpServer() = default;

HttpServer::PathMatcher HttpServer::exactPath(const QByteArray &path) {
    return [path](const QByteArray &candidate) { return candidate == path; };
}

void HttpServer::addWebSocketRoute(PathMatcher matches, WebSocketHandler handler) {
    webSocketRoutes.push_back({std::move(matches), std::move(handler)});
}

void HttpServer::addHttpRoute(PathMatcher matches, HttpHandler handler) {
    httpRoutes.push_back({std::move(matches), std::move(handler)});
}

void HttpServer::setSupportedSubprotocols(const QStringList &protocols) {
    webSocketServer->setSupportedSubprotocols(protocols);
}

bool HttpServer::listen(const QHostAddress &address, quint16 port) {
    return tcpServer.listen(address, port);
}

void HttpServer::acceptPending() {
    while (QTcpSocket *socket = tcpServer.nextPendingConnection()) {
        // The WebSocket server only times out handshakes on connections it accepted
        // itself, so a client that connects and never finishes its request is dropped here.
        auto *timer = new QTimer(socket);
        timer->setSingleShot(true);
        connect(timer, &QTimer::timeout, socket, [socket] { socket->abort(); });
        timer->start(handshakeTimeoutMs);
        socket->setProperty(timerProperty, QVariant::fromValue(static_cast<QObject *>(timer)));

        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { inspect(socket); });
        if (socket->bytesAvailable() > 0)
            inspect(socket);
    }
}

void HttpServer::inspect(QTcpSocket *socket) {
    // Peek, never read: the WebSocket server must see the request exactly as sent.
    const QByteArray buffered = socket->peek(socket->bytesAvailable());
    const qsizetype end = buffered.indexOf("\r\n\r\n");
    if (end < 0) {
        if (buffered.size() > maxHeadSize) {
            disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
            answer(socket, HttpResponse::error(431, "Request Header Fields Too Large"));
        }
        return;
    }
    const qsizetype headLength = end + 4;
    ParsedHead parsed = parseHead(buffered.left(end));
    if (!parsed.ok || !parsed.request.headers.contains("host")) {
        disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
        answer(socket, HttpResponse::error(400, "Bad Request"));
        return;
    }
    dispatch(socket, std::move(parsed.request), headLength);
}

void HttpServer::dispatch(QTcpSocket *socket, HttpRequest request, qsizetype headLength) {
    if (request.isWebSocketUpgrade() || !httpRouteFor(request.path)) {
        disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
        if (!webSocketRouteFor(request.path)) {
            answer(socket, HttpResponse::error(404, "Not Found"));
            return;
        }
        if (!request.isWebSocketUpgrade() || !request.headers.contains("sec-websocket-key")) {
            // A browser or curl asking for "/" as a page: say what is wrong instead of
            // leaving the WebSocket server to drop the connection without a word.
            answer(socket, HttpResponse::error(400, "Bad Request"));
            return;
        }
        if (originCheck && request.headers.contains("origin") && !originCheck(request.header("origin"))) {
            answer(socket, HttpResponse::error(403, "Forbidden"));
            return;
        }
        if (auto *timer = socket->property(timerProperty).value<QObject *>())
            delete timer;
        disconnect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        webSocketServer->handleConnection(socket);
        return;
    }

    // Plain HTTP: wait until the whole body has arrived, then answer and close.
    if (request.headers.contains("transfer-encoding")) {
        // Chunked bodies are not decoded; refusing them beats taking the chunk framing
        // for the body.
        disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
        answer(socket, HttpResponse::error(411, "Length Required"));
        return;
    }
    bool lengthOk = true;
    const QByteArray lengthHeader = request.header("content-length");
    const qint64 contentLength = lengthHeader.isEmpty() ? 0 : lengthHeader.toLongLong(&lengthOk);
    if (!lengthOk || contentLength < 0) {
        disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
        answer(socket, HttpResponse::error(400, "Bad Request"));
        return;
    }
    if (contentLength > maxMessageSize) {
        disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
        answer(socket, HttpResponse::error(413, "Content Too Large"));
        return;
    }
    if (socket->bytesAvailable() < headLength + contentLength)
        return; // more to come; inspect() runs again on the next readyRead
    disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
    socket->read(headLength);
    request.body = socket->read(contentLength);
    const HttpRoute *route = httpRouteFor(request.path);
    answer(socket, route->handler(request));
}

void HttpServer::answer(QTcpSocket *socket, const HttpResponse &response) {
    if (auto *timer = socket->property(timerProperty).value<QObject *>())
        delete timer;
    socket->write(response.serialized());
    socket->disconnectFromHost();
}

void HttpServer::takeUpgraded() {
    while (QWebSocket *socket = webSocketServer->nextPendingConnection()) {
        socket->setMaxAllowedIncomingMessageSize(static_cast<quint64>(maxMessageSize));
        socket->setMaxAllowedIncomingFrameSize(static_cast<quint64>(maxMessageSize));
        connect(socket, &QWebSocket::disconnected, socket, &QObject::deleteLater);
        const WebSocketRoute *route = webSocketRouteFor(socket->requestUrl().path().toUtf8());
        if (!route) {
            socket->close(QWebSocketProtocol::CloseCodePolicyViolated);
            continue;
        }
        route->handler(socket);
    }
}

const HttpServer::WebSocketRoute *HttpServer::webSocketRouteFor(const QByteArray &path) const {
    for (const WebSocketRoute &route : webSocketRoutes)
        if (route.matches(path))
            return &route;
    return nullptr;
}

const HttpServer::HttpRoute *HttpServer::httpRouteFor(const QByteArray &path) const {
    for (const HttpRoute &route : httpRoutes)
        if (route.matches(path))
            return &route;
    return nullptr;
}
