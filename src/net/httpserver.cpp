#include "httpserver.h"

#include "chunkedbody.h"
#include "httpconnection.h"
#include "keepaccepting.h"

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
const char *const continuedProperty = "askedForBody";

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
    : QObject(parent), tcpServer(new HttpConnectionServer(this)),
      webSocketServer(new QWebSocketServer(serverName, QWebSocketServer::NonSecureMode, this)) {
    connect(tcpServer, &QTcpServer::newConnection, this, &HttpServer::acceptPending);
    new KeepAccepting(tcpServer, QStringLiteral("WebSocket server"));
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
    return tcpServer->listen(address, port);
}

QString HttpServer::errorString() const {
    return tcpServer->errorString();
}

quint16 HttpServer::serverPort() const {
    return tcpServer->serverPort();
}

QHostAddress HttpServer::serverAddress() const {
    return tcpServer->serverAddress();
}

bool HttpServer::isListening() const {
    return tcpServer->isListening();
}

void HttpServer::acceptPending() {
    while (auto *socket = static_cast<HttpConnection *>(tcpServer->nextPendingConnection())) {
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

void HttpServer::inspect(HttpConnection *socket) {
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
    // A WebSocket handshake needs its Host header (the WebSocket server refuses one without
    // it); a plain request for a page of ours is answered all the same.
    const bool hostMissing = !parsed.request.headers.contains("host") &&
                             (parsed.request.isWebSocketUpgrade() || !httpRouteFor(parsed.request.path));
    if (!parsed.ok || hostMissing) {
        disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
        answer(socket, HttpResponse::error(400, "Bad Request"));
        return;
    }
    dispatch(socket, std::move(parsed.request), headLength);
}

void HttpServer::dispatch(HttpConnection *socket, HttpRequest request, qsizetype headLength) {
    if (!request.isWebSocketUpgrade() && httpRouteFor(request.path)) {
        answerPlainRequest(socket, std::move(request), headLength);
        return;
    }
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
    upgrade(socket, headLength);
}

void HttpServer::upgrade(HttpConnection *socket, qsizetype headLength) {
    if (auto *timer = socket->property(timerProperty).value<QObject *>())
        delete timer;
    disconnect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    // The WebSocket server reads the handshake through a buffered stream that swallows
    // whatever follows it: a first frame sent in the same write as the request would be
    // lost. It waits here and goes back in front once the upgrade is done.
    socket->holdBackAfterHead(headLength);
    upgrading.removeAll(nullptr);
    upgrading.append(socket);
    webSocketServer->handleConnection(socket);
}

void HttpServer::answerPlainRequest(HttpConnection *socket, HttpRequest request, qsizetype headLength) {
    const QByteArray transferEncoding = request.header("transfer-encoding").trimmed().toLower();
    const bool chunked = transferEncoding == "chunked";
    if (!transferEncoding.isEmpty() && !chunked) {
        disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
        answer(socket, HttpResponse::error(501, "Not Implemented"));
        return;
    }
    // A client that waits to be asked for its body (curl does for a chunked one) is asked
    // at once rather than after its own second of waiting.
    const auto askForBody = [socket, &request] {
        if (request.header("expect").toLower() == "100-continue" &&
            !socket->property(continuedProperty).toBool()) {
            socket->setProperty(continuedProperty, true);
            socket->write("HTTP/1.1 100 Continue\r\n\r\n");
        }
    };

    if (chunked) {
        const ChunkedBody body =
            ChunkedBody::decode(socket->peek(socket->bytesAvailable()).mid(headLength), maxMessageSize);
        switch (body.state) {
        case ChunkedBody::State::Incomplete:
            askForBody();
            return; // more to come; inspect() runs again on the next readyRead
        case ChunkedBody::State::Malformed:
            disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
            answer(socket, HttpResponse::error(400, "Bad Request"));
            return;
        case ChunkedBody::State::TooLarge:
            disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
            answer(socket, HttpResponse::error(413, "Content Too Large"));
            return;
        case ChunkedBody::State::Complete:
            disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
            socket->read(headLength + body.consumed);
            request.body = body.body;
            break;
        }
    } else {
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
        if (socket->bytesAvailable() < headLength + contentLength) {
            askForBody();
            return; // more to come; inspect() runs again on the next readyRead
        }
        disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
        socket->read(headLength);
        request.body = socket->read(contentLength);
    }
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
        HttpConnection *connection = connectionOf(socket);
        if (connection) {
            upgraded.insert(socket, connection);
            connect(socket, &QObject::destroyed, this, [this, socket] { upgraded.remove(socket); });
        }
        const WebSocketRoute *route = webSocketRouteFor(socket->requestUrl().path().toUtf8());
        if (!route) {
            socket->close(QWebSocketProtocol::CloseCodePolicyViolated);
            continue;
        }
        route->handler(socket);
        // Only now that the route has connected to the socket's frames: a frame that came
        // with the handshake reaches it like any other.
        if (connection && socket->state() == QAbstractSocket::ConnectedState)
            connection->resumeAfterUpgrade();
    }
}

HttpConnection *HttpServer::connectionOf(QWebSocket *socket) {
    // A connection is told apart by its peer's address and port.
    upgrading.removeAll(nullptr);
    for (qsizetype i = 0; i < upgrading.size(); ++i) {
        HttpConnection *connection = upgrading.at(i);
        if (connection->peerPort() == socket->peerPort() &&
            connection->peerAddress() == socket->peerAddress()) {
            upgrading.removeAt(i);
            return connection;
        }
    }
    return nullptr;
}

void HttpServer::closeKeepingReadOpen(QWebSocket *socket) {
    if (HttpConnection *connection = upgraded.value(socket))
        connection->keepReadingAfterNextClose();
    socket->close();
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
