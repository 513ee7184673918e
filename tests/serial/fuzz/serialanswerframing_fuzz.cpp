// libFuzzer target for the serial answer framing.
//
// Besides "does not crash", it checks for any input:
//  - chunking never changes the outcome of a whole answer: an STX ... ETX frame gives the
//    same post (or the same silence) whether it comes in one chunk or cut anywhere, as
//    long as no later chunk happens to begin with an STX byte (which restarts by design),
//    and whatever stray bytes came before it;
//  - on any stream of chunks, with the active interface switching between USB and TCP,
//    every chunk has the outcome of a plain transcription of the rules, posts at most one
//    response, and posts exactly the response of that outcome; the buffer is empty after
//    every chunk that holds an ETX.
#include "common/cp949.h"
#include "terminal_serial/serialanswerframing.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

void check(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "property violated: %s\n", what);
        std::abort();
    }
}

const QString models[] = {QStringLiteral("TS-132N"), QStringLiteral("TS-167"), QStringLiteral("KIS-7430"),
                          QStringLiteral("OTHER")};

using Outcome = SerialAnswerFraming::Outcome;

// The rules as written, on std::string, kept apart from the class under test.
struct Reference {
    std::string buffer;
    bool skipping = false; // more than 64 KiB came without an ETX; until the next STX

    SerialAnswerFraming::Result feed(const std::string &chunk, bool usb, const QString &model) {
        if (!usb)
            return {Outcome::Ignored, {}};
        if (chunk.empty())
            return {Outcome::Collecting, {}};
        if (chunk[0] == '\x02') {
            buffer.clear();
            skipping = false;
        }
        if (skipping)
            return {Outcome::Discarded, {}};
        if (buffer.size() + chunk.size() > 64 * 1024) {
            buffer.clear();
            skipping = true;
            return {Outcome::Overflowed, {}};
        }
        buffer += chunk;
        if (chunk.find('\x03') == std::string::npos)
            return {Outcome::Collecting, {}};
        std::string all;
        all.swap(buffer);
        if (all.size() < 9)
            return {Outcome::TooShort, {}};
        const std::size_t front = model == QLatin1String("KIS-7430") ? 3 : 5;
        const std::size_t back = model == QLatin1String("KIS-7430") ? 1 : 3;
        const std::string payload = all.substr(front, all.size() - front - back);
        const std::optional<QString> text =
            cp949::decode(QByteArray(payload.data(), static_cast<qsizetype>(payload.size())));
        if (!text)
            return {Outcome::Undecodable, {}};
        return {Outcome::Answered, *text};
    }
};

QByteArray bytesOf(const std::string &s) {
    return QByteArray(s.data(), static_cast<qsizetype>(s.size()));
}

// A framing that reads `mainInterface` and `model` as its settings.
struct Harness {
    QString mainInterface = QStringLiteral("USB");
    QString model;
    SerialAnswerFraming framing{[this](const QString &key) -> std::optional<QVariant> {
        if (key == QLatin1String("MAIN_INTERFACE"))
            return QVariant(mainInterface);
        return QVariant(model);
    }};
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    std::vector<TerminalAnswer> collected;
    const auto feed = [&collected](Harness &harness, const QByteArray &chunk) {
        if (const std::optional<TerminalAnswer> answer = harness.framing.didReceiveData(chunk))
            collected.push_back(*answer);
    };

    FuzzedDataProvider in(data, size);
    const QString model = models[in.ConsumeIntegralInRange<int>(0, 3)];

    // 1. One frame, whole and in pieces, after the same stray bytes.
    const std::string stray = in.ConsumeBytesAsString(in.ConsumeIntegralInRange<std::size_t>(0, 12));
    std::string body = in.ConsumeBytesAsString(in.ConsumeIntegralInRange<std::size_t>(0, 48));
    for (char &c : body)
        if (c == '\x03')
            c = '\x04';
    const std::string frame = '\x02' + body + '\x03';
    std::vector<std::string> pieces;
    std::size_t start = 0;
    for (std::size_t i = 1; i < frame.size(); ++i)
        if (frame[i] != '\x02' && in.ConsumeBool()) {
            pieces.push_back(frame.substr(start, i - start));
            start = i;
        }
    pieces.push_back(frame.substr(start));

    Harness whole, cut;
    whole.model = cut.model = model;
    if (!stray.empty()) {
        feed(whole, bytesOf(stray));
        feed(cut, bytesOf(stray));
    }
    collected.clear();
    feed(whole, bytesOf(frame));
    const std::vector<TerminalAnswer> wholePosts = collected;
    collected.clear();
    for (const std::string &piece : pieces)
        feed(cut, bytesOf(piece));
    check(collected == wholePosts, "chunking changes the answer");
    check(whole.framing.combinedATransactionData().isEmpty(), "buffer left after a whole frame");
    check(cut.framing.combinedATransactionData().isEmpty(), "buffer left after a chunked frame");
    check(wholePosts.size() <= 1, "a frame posts at most once");
    if (frame.size() < 9)
        check(wholePosts.empty(), "a short frame posts nothing");
    if (!wholePosts.empty()) {
        const bool kis = model == QLatin1String("KIS-7430");
        const std::string payload = frame.substr(kis ? 3 : 5, frame.size() - (kis ? 4 : 8));
        check(wholePosts[0].text == cp949::decode(bytesOf(payload)).value_or(QString()),
              "the posted text is the frame minus the model's framing bytes");
    }

    // 2. Any stream of chunks, the interface switching under it, against the reference.
    Harness stream;
    stream.model = model;
    Reference reference;
    while (in.remaining_bytes() > 0) {
        const bool usb = in.ConsumeIntegralInRange<int>(0, 7) != 0;
        stream.mainInterface = usb ? QStringLiteral("USB") : QStringLiteral("TCP");
        std::string chunk = in.ConsumeBytesAsString(in.ConsumeIntegralInRange<std::size_t>(1, 24));
        if (chunk.empty())
            break;
        const QByteArray before = stream.framing.combinedATransactionData();
        const SerialAnswerFraming::Result expected = reference.feed(chunk, usb, model);
        collected.clear();
        feed(stream, bytesOf(chunk));
        check(stream.framing.combinedATransactionData() == bytesOf(reference.buffer), "buffer differs");
        if (expected.outcome == Outcome::Answered) {
            check(collected.size() == 1, "an answer posts once");
            check(collected[0] == (TerminalAnswer{expected.text, model}), "posted answer differs");
        } else {
            check(collected.empty(), "no answer, no post");
        }
        if (!usb)
            check(stream.framing.combinedATransactionData() == before, "TCP chunk touched the buffer");
        if (usb && chunk.find('\x03') != std::string::npos)
            check(stream.framing.combinedATransactionData().isEmpty(), "buffer left after an ETX");
    }
    return 0;
}
