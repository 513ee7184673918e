#pragma once

#include "net/httpserver.h"

#include <QHash>
#include <QObject>
#include <QString>

class HttpSession;
class QWebSocket;

// A small STOMP-over-WebSocket server for trying a STOMP client against the shop computer
// and for pushing a text to it from plain HTTP. The service itself never creates one; the
// stomp-test-server executable does.
//
// Routes, both on the same port:
//   ws://HOST:8080/session/<id>     STOMP frames in WebSocket text messages
//   POST http://HOST:8080/session/<id>   the body becomes the session's attachment
// A session is created the first time its id is used, from either side.
class TestServer : public QObject {
    Q_OBJECT
public:
    static constexpr quint16 defaultPort = 8080;
    static constexpr QByteArrayView sessionPathPrefix = "/session/";

    explicit TestServer(quint16 port = defaultPort, QObject *parent = nullptr);
    ~TestServer() override;

    // Listens on IPv4 only and prints the start line. On failure (the port is taken, say)
    // nothing is printed and the reason is handed back in `failure`.
    [[nodiscard]] bool start(QString *failure = nullptr);

    quint16 serverPort() const { return server.serverPort(); }
    qsizetype sessionCount() const { return allSessions.size(); }

private:
    HttpSession *sessionFor(const QString &sessionId);
    void release(HttpSession *session);
    void acceptWebSocket(QWebSocket *socket);
    HttpResponse acceptHttpRequest(const HttpRequest &request);

    HttpServer server;
    // Touched only on this object's thread, which is also the thread every handler of
    // `server` and every session queue runs on; that thread is what guards it.
    QHash<QString, HttpSession *> allSessions;
    quint16 port;
};
