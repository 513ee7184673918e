#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

// What the terminals' bytes mean, apart from the sockets that carry them, so that every
// byte sequence a terminal can send is checked on its own (and fuzzed).
namespace TerminalAnswers {

constexpr char ETX = 0x03;
constexpr char ACK = 0x06;
constexpr char DLE = 0x10;

// A terminal on Wi-Fi or behind a small switch delivers one answer in several TCP segments,
// and a fast one can put two replies in one. A reply is therefore gathered from the pieces
// that arrive until it is whole: when it ends as that vendor's replies end (then at once),
// when the read limit is reached, when the terminal hangs up, or once no piece has come for
// `pieceGapMs`. Pieces that arrive up to 200 ms apart always belong to the same reply.
constexpr int pieceGapMs = 300;

// The length of the whole reply at the front of the bytes gathered so far, or 0 while more
// may belong to it. `gathered` is never empty.
using ReplyEnd = qsizetype (*)(const QByteArray &gathered);

// A first reply after the request (KIS and SMARTRO), never examined: what the first read
// brings, except that ACKs at its front are the acknowledgement alone and what follows them
// is the start of the next reply.
qsizetype firstReplyEnd(const QByteArray &gathered);
// The KIS answer: an ACK at its front is only the acknowledgement; a result ends with ETX.
qsizetype kisAnswerEnd(const QByteArray &gathered);
// A SMARTRO reply after the first ends with ETX. The final DLE reply has no end byte of its
// own: it is whole when the terminal pauses or hangs up.
qsizetype smartroReplyEnd(const QByteArray &gathered);
// A frame on an answer listener: 5 framing bytes, the text, then ETX and 2 more bytes.
qsizetype listenerFrameEnd(const QByteArray &gathered);

// How many of the gathered bytes to take as the reply now: what `end` finds whole within
// the first `limit` bytes, else `limit` bytes once that many are there, else all of them
// once no more can come (`moreMayCome` false: the terminal hung up or the gap passed).
// 0: wait for more.
qsizetype replyLength(const QByteArray &gathered, qint64 limit, ReplyEnd end, bool moreMayCome);

// A KIS exchange ends with the terminal's first reply for a slip print, and for a request
// whose byte at index 2 is DLE; any other request waits for the customer.
bool kisEndsWithFirstReply(const QByteArray &request, const QString &kind);

// The KIS read that follows the first reply.
struct KisAnswer {
    enum class Kind {
        Nothing,  // no answer, or only the terminal's acknowledgement (ACK first)
        Result,   // `text` is the answer without its 3 leading bytes and its last byte
        TooShort, // 3 bytes or fewer: nothing to cut the frame from
    } kind;
    QByteArray text;
};
KisAnswer readKisAnswer(const std::optional<QByteArray> &answer);

// A SMARTRO reply after the first is the final one (the answer) when it starts with DLE.
bool isSmartroFinalReply(const QByteArray &reply);

// The answer text in a frame delivered to an answer listener: the frame without its 5
// leading and 3 trailing framing bytes, or empty for a frame under 9 bytes.
QByteArray listenerAnswerBytes(const QByteArray &frame);

} // namespace TerminalAnswers
