#pragma once

#include "terminalanswers.h"

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QTcpSocket>
#include <QTimer>
#include <functional>
#include <optional>

// One connection to a card terminal, driven step by step the way the vendors' exchanges
// are described (connect, send, read with a time-out, close) but without ever blocking:
// each step reports through a callback from the event loop, so an exchange that waits
// minutes for a customer holds up nothing else. The same steps serve a connection a
// terminal opened to one of our answer listeners.
class TcpClient : public QObject {
    Q_OBJECT
public:
    using ConnectDone = std::function<void(const std::optional<QString> &error)>;
    using ReadDone = std::function<void(const std::optional<QByteArray> &bytes)>;

    // After close() the socket is given this long to hand over what is still queued.
    static constexpr int closeGraceMs = 5000;

    TcpClient(const QHostAddress &address, quint16 port, QObject *parent = nullptr);
    // A connection the terminal made: already connected, and this client's from now on.
    explicit TcpClient(QTcpSocket *accepted, QObject *parent = nullptr);
    ~TcpClient() override;

    // `done` gets nothing on success, or the reason the connection could not be made.
    void connectToTerminal(int timeoutMs, ConnectDone done);
    // Queues the bytes for sending; false when the connection is gone.
    bool send(const QByteArray &bytes);
    // `done` gets the next reply: the bytes that arrive (at once if some are there already),
    // gathered piece by piece until `end` finds them whole, `limit` bytes are there, the
    // terminal hangs up or pauses between pieces (TerminalAnswers::replyLength). Nothing
    // when `timeoutMs` passes before the first byte, or the terminal hangs up first. Bytes
    // behind the reply stay for the next read.
    void read(qint64 limit, int timeoutMs, TerminalAnswers::ReplyEnd end, ReadDone done);
    // Ends the exchange: queued bytes are still delivered, then the connection is closed.
    void close();
    // Ends the exchange at once, without the orderly close (for a failed connect).
    void release();

    // The terminal closed its side (rather than a time-out ending the read).
    bool hungUp() const { return peerClosed; }
    QString target() const;

signals:
    // The connection is closed and no callback will run any more.
    void finished();

private:
    enum class Step { Idle, Connecting, Connected, Reading, Gathering, Closing, Done };

    void wire();
    void onConnected();
    void onReadyRead();
    void onDisconnected();
    void onError(QAbstractSocket::SocketError error);
    void onTimeout();
    void gather(bool moreMayCome);
    void deliverRead(const std::optional<QByteArray> &bytes);
    void finish();

    QHostAddress address;
    quint16 port;
    QTcpSocket *socket;
    QTimer timer;
    Step step = Step::Idle;
    int connectTimeoutMs = 0;
    qint64 readLimit = 0;
    TerminalAnswers::ReplyEnd readEnd = nullptr;
    bool peerClosed = false;
    int nesting = 0; // read callbacks under way on this stack
    static constexpr int maxNesting = 16;
    ConnectDone connectDone;
    ReadDone readDone;
};
