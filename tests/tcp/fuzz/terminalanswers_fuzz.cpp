// Every byte sequence a card terminal on the network can send, through the code that reads
// it: the answer listeners' cut, the KIS answer, the SMARTRO replies. The first input byte
// picks which; the rest is what the terminal sent. Each reading is checked against the
// plain rule it implements, and what is left is decoded the way it would reach the POS.
// A fourth case cuts a valid answer into pieces at random points, up to 200 ms apart, and
// checks that the POS gets the same text as from the answer in one piece.
#include "common/cp949.h"
#include "terminal_tcp/terminalanswers.h"

#include <QByteArrayList>
#include <QString>
#include <algorithm>
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

// What a terminal sends, as it reaches the service: pieces and the time each arrives.
struct Arrival {
    qint64 atMs;
    QByteArray bytes;
};

// The reads of one connection, as the service's client makes them: each read gathers
// arrived bytes until replyLength() takes a reply, or until the pause after the latest
// piece passes pieceGapMs (the terminal keeps its line open; it never hangs up here).
class Connection {
public:
    explicit Connection(QList<Arrival> arrivals) : arrivals(std::move(arrivals)) {}

    std::optional<QByteArray> read(qint64 limit, ReplyEnd end) {
        for (;;) {
            const bool more = next < arrivals.size();
            if (const qsizetype n = replyLength(buffer, limit, end, true); n > 0)
                return take(n);
            if (!more) {
                // Nothing more comes: once the pause has passed, what came is the reply.
                if (buffer.isEmpty())
                    return std::nullopt;
                return take(replyLength(buffer, limit, end, false));
            }
            const Arrival &arrival = arrivals.at(next);
            if (!buffer.isEmpty() && arrival.atMs - lastArrivalMs >= pieceGapMs)
                return take(replyLength(buffer, limit, end, false));
            buffer += arrival.bytes;
            lastArrivalMs = arrival.atMs;
            ++next;
        }
    }

private:
    QByteArray take(qsizetype n) {
        const QByteArray reply = buffer.left(n);
        buffer.remove(0, n);
        return reply;
    }

    QList<Arrival> arrivals;
    qsizetype next = 0;
    QByteArray buffer;
    qint64 lastArrivalMs = 0;
};

// The text the POS receives from what the terminal sent, per vendor; nothing when the POS
// gets nothing.
std::optional<QString> posText(int vendor, const QList<Arrival> &arrivals) {
    Connection connection(arrivals);
    switch (vendor) {
    case 0: { // KIS: the first reply, then the answer, cut and decoded
        if (!connection.read(10240, firstReplyEnd))
            return std::nullopt;
        const KisAnswer answer = readKisAnswer(connection.read(10240, kisAnswerEnd));
        if (answer.kind != KisAnswer::Kind::Result)
            return std::nullopt;
        return cp949::decode(answer.text);
    }
    case 1: { // SMARTRO: the DLE reply, whole
        const std::optional<QByteArray> reply = connection.read(10240, smartroReplyEnd);
        if (!reply || !isSmartroFinalReply(*reply))
            return std::nullopt;
        return cp949::decode(*reply);
    }
    default: { // an answer listener: one frame
        const std::optional<QByteArray> frame = connection.read(1024, listenerFrameEnd);
        return cp949::decode(listenerAnswerBytes(frame.value_or(QByteArray())));
    }
    }
}

// Answer text a terminal would send, made from fuzzer bytes: printable ASCII and Hangul
// syllables of KS X 1001, so always valid code page 949 without control bytes.
QByteArray answerText(const uint8_t *data, size_t size) {
    QByteArray text;
    for (size_t i = 0; i + 1 < size && text.size() < 900; i += 2) {
        if (data[i] & 1) {
            text += static_cast<char>(0xb0 + data[i] % 0x19);
            text += static_cast<char>(0xa1 + data[i + 1] % 0x5e);
        } else {
            text += static_cast<char>(0x20 + data[i + 1] % 0x5f);
        }
    }
    return text;
}

void splitAnswerReadsTheSameAsWhole(const uint8_t *data, size_t size) {
    if (size < 2)
        return;
    const int vendor = data[0] % 3;
    const int cutCount = data[1] % 16;
    const size_t head = 2 + 2 * static_cast<size_t>(cutCount);
    if (size < head)
        return;
    const QByteArray text = answerText(data + head, size - head);
    QByteArray sent;
    switch (vendor) {
    case 0: // ACK, then STX, two header bytes, the text, ETX
        sent = QByteArray(1, ACK) + '\x02' + "00" + text + ETX;
        break;
    case 1: // DLE and the text
        sent = DLE + text;
        break;
    default: // 5 framing bytes, the text, ETX and 2 more
        sent = "\x02"
               "0000" +
               text + ETX + "00";
        break;
    }

    QList<qsizetype> cuts;
    QList<int> gaps;
    for (int i = 0; i < cutCount; ++i) {
        cuts << 1 + data[2 + 2 * i] * static_cast<qsizetype>(sent.size()) / 256;
        gaps << data[3 + 2 * i] % 201; // up to 200 ms apart
    }
    std::sort(cuts.begin(), cuts.end());
    QList<Arrival> pieces;
    qsizetype from = 0;
    qint64 at = 0;
    for (int i = 0; i < cuts.size(); ++i) {
        if (cuts[i] <= from || cuts[i] >= sent.size())
            continue;
        pieces.append({at, sent.mid(from, cuts[i] - from)});
        at += gaps[i];
        from = cuts[i];
    }
    pieces.append({at, sent.mid(from)});

    const std::optional<QString> whole = posText(vendor, {{0, sent}});
    // In one piece, the POS gets exactly the text (with its DLE for SMARTRO)...
    const std::optional<QString> expected = cp949::decode(vendor == 1 ? DLE + text : text);
    check(expected.has_value() && whole == expected);
    // ...and in pieces, the very same.
    check(posText(vendor, pieces) == whole);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const QByteArray sent(reinterpret_cast<const char *>(data + 1), static_cast<qsizetype>(size - 1));
    switch (data[0] % 4) {
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
    case 3: // a valid answer in pieces
        splitAnswerReadsTheSameAsWhole(data + 1, size - 1);
        break;
    }
    return 0;
}
