#pragma once

#include <QByteArray>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QList>
#include <QProcess>
#include <QStringList>
#include <QTcpSocket>
#include <QTest>
#include <QUrl>
#include <QWebSocket>
#include <QWebSocketHandshakeOptions>
#include <functional>
#include <optional>

// Helpers for talking to a running stomp-test-server the way a developer's tools would:
// a WebSocket STOMP client, a bare HTTP client, and the server process with its output.

namespace stomptest {

constexpr quint16 serverPort = 8080;
constexpr int deadlineMs = 10'000;

// Processes events until `condition` holds or the deadline passes.
inline bool waitUntil(const std::function<bool()> &condition, int timeoutMs = deadlineMs) {
    QElapsedTimer clock;
    clock.start();
    while (!condition()) {
        if (clock.elapsed() > timeoutMs)
            return false;
        QTest::qWait(5);
    }
    return true;
}

inline QString nul() {
    return QString(QChar(u'\0'));
}

// The bytes of a literal including any NUL inside or at its end (not the terminator the
// compiler adds), so expected frames can be written as they go over the wire.
template <qsizetype N> QByteArray bytes(const char (&literal)[N]) {
    return QByteArray(literal, N - 1);
}

// The server binary as a child process; everything it prints is kept.
class ServerProcess {
public:
    ServerProcess() {
        process.setProgram(QStringLiteral(STOMP_TEST_SERVER_BIN));
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QObject::connect(&process, &QProcess::readyReadStandardOutput,
                         [this] { output += process.readAllStandardOutput(); });
    }
    ~ServerProcess() {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(deadlineMs);
        }
    }

    void start() { process.start(); }
    bool waitForOutput(const QByteArray &text, int timeoutMs = deadlineMs) {
        return waitUntil([&] { return output.contains(text); }, timeoutMs);
    }
    bool waitForFinished(int timeoutMs = deadlineMs) {
        const bool finished =
            waitUntil([this] { return process.state() == QProcess::NotRunning; }, timeoutMs);
        output += process.readAllStandardOutput(); // whatever the last read left behind
        return finished;
    }
    // SIGTERM, as a service manager or Ctrl-C would stop it.
    bool stop() {
        process.terminate();
        return waitForFinished();
    }

    QProcess process;
    QByteArray output;
};

// A STOMP client over WebSocket that keeps every text message it receives, in order.
class StompClient {
public:
    StompClient() {
        QObject::connect(&socket, &QWebSocket::textMessageReceived,
                         [this](const QString &text) { received << text; });
    }

    bool open(const QString &sessionPath, const QStringList &subprotocols = {}) {
        QWebSocketHandshakeOptions options;
        options.setSubprotocols(subprotocols);
        socket.open(QUrl(QStringLiteral("ws://127.0.0.1:%1%2").arg(serverPort).arg(sessionPath)), options);
        return waitUntil([this] {
                   return socket.state() == QAbstractSocket::ConnectedState ||
                          socket.state() == QAbstractSocket::UnconnectedState;
               }) &&
               socket.state() == QAbstractSocket::ConnectedState;
    }
    bool close() {
        socket.close();
        return waitUntil([this] { return socket.state() == QAbstractSocket::UnconnectedState; });
    }

    void send(const QString &frame) {
        socket.sendTextMessage(frame);
        socket.flush();
    }
    // A frame as STOMP clients write it: command, headers, blank line, body, NUL.
    void sendFrame(const QString &command, const QStringList &headers = {}, const QString &body = {}) {
        QString frame = command + u'\n';
        for (const QString &header : headers)
            frame += header + u'\n';
        send(frame + u'\n' + body + nul());
    }

    // The next message not yet taken, waiting for it until the deadline.
    std::optional<QString> next(int timeoutMs = deadlineMs) {
        if (!waitUntil([this] { return taken < received.size(); }, timeoutMs))
            return std::nullopt;
        return received.at(taken++);
    }
    qsizetype untaken() const { return received.size() - taken; }

    QWebSocket socket;
    QStringList received;

private:
    qsizetype taken = 0;
};

struct HttpReply {
    bool complete = false;
    QByteArray statusLine;
    QByteArray head;
    QByteArray body;
};

// Sends `request` as it stands on a connection of its own, in the pieces given (each
// written once the server has taken the one before), and reads the answer until the server
// closes the connection. An interim "100 Continue" answer is kept in `interim`.
inline HttpReply rawHttp(const QList<QByteArray> &pieces, QByteArray *interim = nullptr) {
    HttpReply reply;
    QTcpSocket socket;
    QByteArray raw;
    QObject::connect(&socket, &QTcpSocket::readyRead, [&] { raw += socket.readAll(); });
    socket.connectToHost(QHostAddress::LocalHost, serverPort);
    if (!waitUntil([&] { return socket.state() == QAbstractSocket::ConnectedState; }))
        return reply;
    for (const QByteArray &piece : pieces) {
        socket.write(piece);
        if (!waitUntil([&] { return socket.bytesToWrite() == 0; }))
            return reply;
        QTest::qWait(20);
    }
    if (!waitUntil([&] { return socket.state() == QAbstractSocket::UnconnectedState; }))
        return reply;
    raw += socket.readAll();
    const QByteArray continued = "HTTP/1.1 100 Continue\r\n\r\n";
    if (raw.startsWith(continued)) {
        if (interim)
            *interim = continued;
        raw.remove(0, continued.size());
    }
    const qsizetype headEnd = raw.indexOf("\r\n\r\n");
    if (headEnd < 0)
        return reply;
    reply.head = raw.left(headEnd);
    reply.statusLine = reply.head.left(reply.head.indexOf("\r\n"));
    reply.body = raw.mid(headEnd + 4);
    reply.complete = true;
    return reply;
}

// One plain HTTP request on its own connection, the way curl sends it; the server closes
// the connection after its answer.
inline HttpReply httpRequest(const QByteArray &method, const QByteArray &target, const QByteArray &body,
                             bool withBody = true) {
    QByteArray request =
        method + ' ' + target + " HTTP/1.1\r\nHost: 127.0.0.1:8080\r\nUser-Agent: stomp-test\r\n";
    if (withBody)
        request += "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
                   QByteArray::number(body.size()) + "\r\n";
    return rawHttp({request + "\r\n" + body});
}

inline HttpReply post(const QByteArray &target, const QByteArray &body) {
    return httpRequest("POST", target, body);
}

} // namespace stomptest
