#pragma once

#include "wait.h"

#include <QHostAddress>
#include <QList>
#include <QTcpSocket>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

// A WebSocket client written by hand, for what a browser never does: text frames that are
// not UTF-8, a request dribbled in one byte per TCP segment, the handshake and its first
// frames in one write, frames sent after the server's close frame.
class RawWebSocket {
public:
    static QByteArray handshake(const QByteArray &path = "/", const QByteArray &host = "127.0.0.1:49999") {
        return "GET " + path + " HTTP/1.1\r\nHost: " + host +
               "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
               "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
    }

    // A client frame: masked, as RFC 6455 requires of clients.
    static QByteArray frame(quint8 opcode, const QByteArray &payload, bool final = true) {
        QByteArray f;
        f += static_cast<char>((final ? 0x80 : 0x00) | opcode);
        const qsizetype n = payload.size();
        if (n < 126) {
            f += static_cast<char>(0x80 | n);
        } else if (n < 65536) {
            f += static_cast<char>(0x80 | 126);
            f += static_cast<char>(n >> 8);
            f += static_cast<char>(n & 0xff);
        } else {
            f += static_cast<char>(0x80 | 127);
            for (int shift = 56; shift >= 0; shift -= 8)
                f += static_cast<char>((static_cast<quint64>(n) >> shift) & 0xff);
        }
        const char key[4] = {0x37, static_cast<char>(0xfa), 0x21, 0x3d};
        f.append(key, 4);
        for (qsizetype i = 0; i < n; ++i)
            f += static_cast<char>(payload[i] ^ key[i % 4]);
        return f;
    }
    static QByteArray text(const QByteArray &payload) { return frame(0x1, payload); }
    // The client's answer to a close frame (status 1000).
    static QByteArray closeReply() { return frame(0x8, QByteArray("\x03\xe8", 2)); }

    // A frame from the server (never masked).
    struct Frame {
        int opcode = 0;
        QByteArray payload;
        int closeCode() const {
            return opcode == 0x8 && payload.size() >= 2 ? (static_cast<unsigned char>(payload[0]) << 8) |
                                                              static_cast<unsigned char>(payload[1])
                                                        : -1;
        }
    };

    bool connect(quint16 port) {
        socket.connectToHost(QHostAddress::LocalHost, port);
        if (!waitUntil([&] { return socket.state() == QAbstractSocket::ConnectedState; }, 5000))
            return false;
        // Every write goes out as a segment of its own.
        socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
        return true;
    }

    void write(const QByteArray &bytes) {
        socket.write(bytes);
        socket.flush();
    }

    // One byte per write, each pushed out and acknowledged by the server's side before the
    // next, so the server can only ever find one new byte.
    bool writeBytewise(const QByteArray &bytes) {
        for (const char c : bytes) {
            socket.write(&c, 1);
            socket.flush();
            if (!waitUntil([&] { return socket.bytesToWrite() == 0 && unacknowledged() == 0; }, 3000))
                return false;
        }
        return true;
    }

    // Everything up to the end of the answer's head, or empty after `timeoutMs`.
    QByteArray awaitAnswerHead(int timeoutMs) {
        QByteArray head;
        waitUntil(
            [&] {
                in += socket.readAll();
                const qsizetype end = in.indexOf("\r\n\r\n");
                if (end < 0)
                    return socket.state() == QAbstractSocket::UnconnectedState;
                head = in.left(end + 4);
                in.remove(0, end + 4);
                return true;
            },
            timeoutMs);
        return head;
    }

    // The frames the server has sent so far, once `count` of them have come (or the time
    // ran out, or the connection ended); each frame is handed out once.
    QList<Frame> awaitFrames(qsizetype count, int timeoutMs) {
        waitUntil(
            [&] {
                takeFrames();
                return frames.size() >= count || socket.state() == QAbstractSocket::UnconnectedState;
            },
            timeoutMs);
        takeFrames();
        return std::exchange(frames, {});
    }

    // The status code of the server's close frame, or -1 if none came before the
    // connection ended or the time ran out; `ended` says whether the TCP connection is gone.
    int awaitCloseCode(int timeoutMs, bool *ended = nullptr) {
        int code = -1;
        waitUntil(
            [&] {
                takeFrames();
                for (const Frame &f : std::exchange(frames, {}))
                    if (f.opcode == 0x8)
                        code = f.closeCode();
                return code >= 0 && socket.state() == QAbstractSocket::UnconnectedState;
            },
            timeoutMs);
        if (ended)
            *ended = socket.state() == QAbstractSocket::UnconnectedState;
        return code;
    }

    QTcpSocket socket;

private:
    void takeFrames() {
        in += socket.readAll();
        for (;;) {
            if (in.size() < 2)
                return;
            qsizetype header = 2;
            quint64 length = static_cast<unsigned char>(in[1]) & 0x7f;
            if (length == 126) {
                if (in.size() < 4)
                    return;
                length = (static_cast<unsigned char>(in[2]) << 8) | static_cast<unsigned char>(in[3]);
                header = 4;
            } else if (length == 127) {
                if (in.size() < 10)
                    return;
                length = 0;
                for (int i = 2; i < 10; ++i)
                    length = (length << 8) | static_cast<unsigned char>(in[i]);
                header = 10;
            }
            if (static_cast<quint64>(in.size() - header) < length)
                return;
            frames.append({in[0] & 0x0f, in.mid(header, static_cast<qsizetype>(length))});
            in.remove(0, header + static_cast<qsizetype>(length));
        }
    }

    unsigned unacknowledged() const {
        tcp_info info{};
        socklen_t length = sizeof info;
        if (::getsockopt(static_cast<int>(socket.socketDescriptor()), IPPROTO_TCP, TCP_INFO, &info,
                         &length) != 0)
            return 0;
        return info.tcpi_unacked;
    }

    QByteArray in;
    QList<Frame> frames;
};
