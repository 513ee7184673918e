#pragma once

#include "wait.h"

#include <QHostAddress>
#include <QStringList>
#include <QTcpSocket>
#include <QUrl>
#include <QWebSocket>

// A POS page: a real WebSocket client that keeps everything it receives.
struct PosClient {
    QWebSocket socket;
    QStringList texts;
    bool disconnected = false;
    QWebSocketProtocol::CloseCode closeCode = QWebSocketProtocol::CloseCodeNormal;

    PosClient() {
        QObject::connect(&socket, &QWebSocket::textMessageReceived, [this](const QString &t) { texts << t; });
        QObject::connect(&socket, &QWebSocket::disconnected, [this] {
            disconnected = true;
            closeCode = socket.closeCode();
        });
    }
    bool open(quint16 port, const QString &path = QStringLiteral("/")) {
        socket.open(QUrl(QStringLiteral("ws://127.0.0.1:%1%2").arg(port).arg(path)));
        return waitUntil([this] { return socket.state() == QAbstractSocket::ConnectedState; }, 5000);
    }
    void send(const QString &text) {
        socket.sendTextMessage(text);
        socket.flush();
    }
};

// Sends a WebSocket upgrade request by hand and returns the head of the answer.
inline QByteArray rawHandshake(quint16 port, const QByteArray &path, const QByteArray &extraHeaders = {}) {
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    if (!socket.waitForConnected(2000))
        return {};
    socket.write("GET " + path +
                 " HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                 "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n" +
                 extraHeaders + "\r\n");
    QByteArray answer;
    waitUntil(
        [&] {
            answer += socket.readAll();
            return answer.contains("\r\n\r\n") || socket.state() == QAbstractSocket::UnconnectedState;
        },
        3000);
    return answer;
}

// A kitchen order as the POS sends it: the text as UTF-8 byte values.
inline QString kitchenOrderFrame(const QString &text, quint16 port,
                                 const QString &ip = QStringLiteral("127.0.0.1")) {
    QStringList bytes;
    for (const char c : text.toUtf8())
        bytes << QString::number(static_cast<unsigned char>(c));
    return QStringLiteral(R"({"requesttype":"kitchenPrint","data":[%1],"ip":"%2","port":%3})")
        .arg(bytes.join(u','), ip)
        .arg(port);
}
