#pragma once

#include "pieces.h"

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QString>
#include <QTcpSocket>
#include <QTimer>

namespace devsim {

// A card terminal's call to the POS computer's answer listener, as KICC and SMARTRO
// terminals deliver their results: it connects, sends the answer and keeps the line until
// the listener lets go (hanging up itself if the listener holds on too long). A terminal
// that misbehaves is an ending of the same call: one that hangs up as soon as its bytes are
// out, or one that connects and never says anything. On a network that cuts the answer
// up, it goes out in `pieces`. A call `from` an address of this machine leaves from that
// address, as a terminal's comes from its own.
class AnswerCall : public QObject {
    Q_OBJECT
public:
    enum class Ending { WaitForListener, HangUpAfterSending, StaySilent };

    AnswerCall(const QHostAddress &address, quint16 port, const QByteArray &bytes,
               Ending ending = Ending::WaitForListener, QObject *parent = nullptr, const Pieces &pieces = {},
               const QHostAddress &from = {});
    ~AnswerCall() override;

    QString target() const { return to; }
    QByteArray bytes() const { return answer; }
    bool isConnected() const { return connected; }
    bool isSent() const { return sent; }
    bool isFinished() const { return finished; }
    // The listener closed the connection (rather than the terminal, or an error).
    bool closedByListener() const { return listenerClosed; }
    QString error() const { return why; }
    // The terminal ends the call now.
    void hangUp();

signals:
    void pieceSent(const QByteArray &piece); // the whole answer, unless it goes in pieces
    void answerSent();
    void failed(const QString &error);
    void ended();

private:
    void checkSent();
    void finish();

    QTcpSocket socket;
    QTimer patience;
    QString to;
    QByteArray answer;
    Ending ending;
    Pieces pieces;
    bool allWritten = false;
    bool connected = false;
    bool sent = false;
    bool finished = false;
    bool listenerClosed = false;
    bool hangingUp = false;
    QString why;
};

} // namespace devsim
