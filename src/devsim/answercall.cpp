#include "answercall.h"

namespace devsim {

namespace {

// How long a terminal keeps the line for a listener that has its answer but does not let go.
constexpr int listenerPatienceMs = 5000;

} // namespace

AnswerCall::AnswerCall(const QHostAddress &address, quint16 port, const QByteArray &bytes, Ending ending,
                       QObject *parent, const Pieces &pieces, const QHostAddress &from)
    : QObject(parent), to(QStringLiteral("%1:%2").arg(address.toString()).arg(port)), answer(bytes),
      ending(ending), pieces(pieces) {
    patience.setSingleShot(true);
    connect(&patience, &QTimer::timeout, this, &AnswerCall::hangUp);
    connect(&socket, &QTcpSocket::connected, this, [this] {
        connected = true;
        if (this->ending == Ending::StaySilent)
            return;
        sendInPieces(
            &socket, this->pieces.split(answer), this->pieces.gapMs,
            [this](const QByteArray &piece) { emit pieceSent(piece); },
            [this] {
                allWritten = true;
                checkSent(); // the last piece may be out already
            });
    });
    connect(&socket, &QTcpSocket::bytesWritten, this, &AnswerCall::checkSent);
    connect(&socket, &QTcpSocket::disconnected, this, [this] {
        listenerClosed = !hangingUp;
        finish();
    });
    connect(&socket, &QTcpSocket::errorOccurred, this, [this](QAbstractSocket::SocketError error) {
        if (error == QAbstractSocket::RemoteHostClosedError)
            return; // the listener letting go: disconnected() follows
        if (connected || finished)
            return;
        why = socket.errorString();
        emit failed(why);
        finish();
    });
    if (!from.isNull())
        socket.bind(from);
    socket.connectToHost(address, port);
}

AnswerCall::~AnswerCall() {
    // A socket still open closes as it is destroyed, after the timer: its signals must not
    // reach a half-destroyed call.
    socket.disconnect(this);
}

void AnswerCall::checkSent() {
    if (sent || !allWritten || socket.bytesToWrite() > 0)
        return;
    sent = true;
    emit answerSent();
    if (ending == Ending::HangUpAfterSending)
        hangUp();
    else
        patience.start(listenerPatienceMs);
}

void AnswerCall::hangUp() {
    if (finished)
        return;
    hangingUp = true;
    socket.disconnectFromHost(); // after what is still to be written
    if (socket.state() == QAbstractSocket::UnconnectedState)
        finish();
}

void AnswerCall::finish() {
    if (finished)
        return;
    finished = true;
    patience.stop();
    emit ended();
}

} // namespace devsim
