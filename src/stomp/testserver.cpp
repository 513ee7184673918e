#include "testserver.h"

#include "common/log.h"
#include "httpsession.h"

#include <QThread>
#include <QUrl>
#include <QWebSocket>

namespace {

bool isSessionPath(const QByteArray &path) {
    return path.startsWith(TestServer::sessionPathPrefix) &&
           path.size() > TestServer::sessionPathPrefix.size();
}

} // namespace

TestServer::TestServer(quint16 port, QObject *parent)
    : QObject(parent), server(QStringLiteral("stomp-test-server")), port(port) {
    server.addWebSocketRoute(isSessionPath, [this](QWebSocket *socket) { acceptWebSocket(socket); });
    server.addHttpRoute(isSessionPath,
                        [this](const HttpRequest &request) { return acceptHttpRequest(request); });
    // Browser STOMP clients offer these and give up when none is agreed; clients that
    // offer none are served all the same.
    server.setSupportedSubprotocols(
        {QStringLiteral("v10.stomp"), QStringLiteral("v11.stomp"), QStringLiteral("v12.stomp")});
}

TestServer::~TestServer() {
    // Sessions go before the server whose sockets they point at; released ones still
    // waiting for deletion are children and go with this object.
    const QList<HttpSession *> sessions = allSessions.values();
    allSessions.clear();
    qDeleteAll(sessions);
}

bool TestServer::start(QString *failure) {
    if (!server.listen(QHostAddress::AnyIPv4, port)) {
        if (failure)
            *failure = server.errorString();
        return false;
    }
    const quint16 listening = server.serverPort();
    if (listening == 0) {
        if (failure)
            *failure = QStringLiteral("the server does not report a listening port");
        return false;
    }
    logLine(QStringLiteral("\n\n Server has started ( port = %1 ). Try to connect now...").arg(listening));
    return true;
}

HttpSession *TestServer::sessionFor(const QString &sessionId) {
    Q_ASSERT(QThread::currentThread() == thread());
    HttpSession *&session = allSessions[sessionId];
    if (!session) {
        auto *created = new HttpSession(sessionId, this);
        // The session calls this from its own queue, which runs on this thread too.
        created->setRelease([this, created] { release(created); });
        session = created;
    }
    return session;
}

void TestServer::release(HttpSession *session) {
    Q_ASSERT(QThread::currentThread() == thread());
    const auto found = allSessions.constFind(session->sessionId());
    if (found != allSessions.cend() && found.value() == session)
        allSessions.erase(found);
    // Later, not now: the session is in the middle of answering DISCONNECT, and work
    // already queued for it still runs first.
    session->deleteLater();
}

void TestServer::acceptWebSocket(QWebSocket *socket) {
    const QString sessionId = socket->requestUrl().path().mid(sessionPathPrefix.size());
    // Every frame goes to whatever session currently holds the id, so a client that
    // carries on after DISCONNECT starts a fresh session.
    connect(socket, &QWebSocket::textMessageReceived, this, [this, socket, sessionId](const QString &text) {
        sessionFor(sessionId)->handleWebSocketText(socket, text);
    });
    // Binary messages are not STOMP frames here; they get no answer.
}

HttpResponse TestServer::acceptHttpRequest(const HttpRequest &request) {
    if (request.method != "POST")
        return HttpResponse::error(405, "Method Not Allowed");
    const QString sessionId = QUrl::fromPercentEncoding(request.path.mid(sessionPathPrefix.size()));
    return sessionFor(sessionId)->handleHttpRequest(request);
}
