#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

// What the terminals' bytes mean, apart from the sockets that carry them, so that every
// byte sequence a terminal can send is checked on its own (and fuzzed).
namespace TerminalAnswers {

constexpr char ACK = 0x06;
constexpr char DLE = 0x10;

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
