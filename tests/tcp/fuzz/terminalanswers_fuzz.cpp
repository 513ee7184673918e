// Every byte sequence a card terminal on the network can send, through the code that reads
// it: the answer listeners' cut, the KIS answer, the SMARTRO replies. The first input byte
// picks which; the rest is what the terminal sent. Each reading is checked against the
// plain rule it implements, and what is left is decoded the way it would reach the POS.
#include "cp949.h"
#include "terminalanswers.h"

#include <QByteArrayList>
#include <QString>
#include <cstdint>
#include <cstdlib>

using namespace TerminalAnswers;

namespace {

void check(bool holds) {
    if (!holds)
        std::abort();
}

void decodeAsThePosWouldSeeIt(const QByteArray &bytes) {
    const std::optional<QString> text = cp949::decode(bytes);
    if (text) // what decodes must encode back to the very same bytes
        check(cp949::encode(*text) == std::optional<QByteArray>(bytes));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const QByteArray sent(reinterpret_cast<const char *>(data + 1), static_cast<qsizetype>(size - 1));
    switch (data[0] % 3) {
    case 0: { // a frame delivered to an answer listener (one read of at most 1024 bytes)
        const QByteArray frame = sent.left(1024);
        const QByteArray text = listenerAnswerBytes(frame);
        if (frame.size() < 9)
            check(text.isEmpty());
        else
            check(text == frame.mid(5, frame.size() - 8) && text.size() == frame.size() - 8);
        decodeAsThePosWouldSeeIt(text);
        break;
    }
    case 1: { // the KIS answer that follows the first reply
        const std::optional<QByteArray> answer =
            sent.isEmpty() ? std::nullopt : std::optional<QByteArray>(sent);
        const KisAnswer result = readKisAnswer(answer);
        if (sent.isEmpty() || sent.at(0) == ACK) {
            check(result.kind == KisAnswer::Kind::Nothing);
        } else if (sent.size() <= 3) {
            check(result.kind == KisAnswer::Kind::TooShort); // the service stops here, on purpose
        } else {
            check(result.kind == KisAnswer::Kind::Result);
            check(result.text == sent.mid(3, sent.size() - 4));
            decodeAsThePosWouldSeeIt(result.text);
        }
        // The request itself decides whether the customer is waited for.
        check(kisEndsWithFirstReply(sent, QStringLiteral("payment")) ==
              (sent.size() > 2 && sent.at(2) == DLE));
        check(kisEndsWithFirstReply(sent, QStringLiteral("print")));
        break;
    }
    case 2: { // SMARTRO replies, split where the terminal paused (0xFF here)
        bool answered = false;
        for (const QByteArray &reply : sent.split('\xff')) {
            if (reply.isEmpty() || answered)
                continue;
            check(isSmartroFinalReply(reply) == (reply.at(0) == DLE));
            if (isSmartroFinalReply(reply)) {
                answered = true;
                decodeAsThePosWouldSeeIt(reply);
            }
        }
        break;
    }
    }
    return 0;
}
