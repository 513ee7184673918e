#pragma once

#include "scriptedterminal.h"

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QString>

// The card terminals' exchanges as the service expects them, as scripts for
// ScriptedTerminal. `answer` is the text the POS should end up receiving, already in
// code page 949.
namespace devsim {

struct VendorPort {
    static constexpr quint16 kicc = 13189;
    static constexpr quint16 kis = 5000;
    static constexpr quint16 smartro = 5501;
};

// The approval a terminal gives when nobody asked for another answer.
QString defaultAnswer();

// KIS result: STX and two header bytes before the text, ETX after it.
QByteArray kisResultFrame(const QByteArray &answer);
// What a terminal delivers to the POS computer's answer listener: five framing bytes
// before the text, three after it.
QByteArray listenerFrame(const QByteArray &answer);

// In each exchange the answer itself goes out in `pieces`, as on Wi-Fi; whole by default.

// KIS: acknowledges the request at once, then, `delayMs` later (the customer entering the
// PIN), sends its framed result on the same connection. With no delay the acknowledgement
// and the result can reach the service in one piece, as a fast terminal's do.
QList<ScriptedTerminal::Step> kisExchange(const QByteArray &answer, int delayMs, const Pieces &pieces = {});
// SMARTRO: acknowledges the request, reports the card read, and after the service's
// 06 06 06 for that sends its DLE reply, the answer itself, which is acknowledged too.
// The service hands the DLE reply on whole, DLE byte included.
QList<ScriptedTerminal::Step> smartroExchange(const QByteArray &answer, int delayMs,
                                              const Pieces &pieces = {});
// KICC: acknowledges the request, and `delayMs` later delivers its answer by connecting
// to the service's answer listener at `replyTo`:`replyPort`.
QList<ScriptedTerminal::Step> kiccExchange(const QByteArray &answer, int delayMs, const QHostAddress &replyTo,
                                           quint16 replyPort = VendorPort::kicc, const Pieces &pieces = {});

} // namespace devsim
