// libFuzzer target for the STOMP command-line parser and the reply frames.
//
// Besides "does not crash", it checks what must hold for any input:
//  - a parse succeeds exactly when the text up to the first line feed is one of the five
//    command texts, compared exactly (worked out here independently of the parser);
//  - a parsed frame has the command of that line, no headers and no body;
//  - the reply frames keep their fixed parts and their lengths around any session id or
//    attachment, and end with NUL.
#include "stomp/stompframe.h"

#include <QString>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

void check(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "property violated: %s\n", what);
        std::abort();
    }
}

int expectedCommand(std::u16string_view text) {
    const std::size_t lineEnd = text.find(u'\n');
    const std::u16string_view line = lineEnd == std::u16string_view::npos ? text : text.substr(0, lineEnd);
    constexpr std::u16string_view names[] = {u"CONNECT", u"DISCONNECT", u"SEND", u"SUBSCRIBE",
                                             u"UNSUBSCRIBE"};
    for (int i = 0; i < 5; ++i)
        if (line == names[i])
            return i;
    return -1;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    // Text messages reach the server as QStrings decoded from UTF-8; the fuzzer's bytes
    // go the same way, invalid sequences included.
    const QString text =
        QString::fromUtf8(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    const std::u16string_view view(reinterpret_cast<const char16_t *>(text.utf16()),
                                   static_cast<std::size_t>(text.size()));

    const int expected = expectedCommand(view);
    const std::optional<STOMPFrame> frame = STOMPFrame::parse(text);
    check(frame.has_value() == (expected >= 0), "parse succeeds iff the first line is a command");
    if (frame) {
        check(static_cast<int>(frame->command) == expected, "parsed command is the first line's");
        check(frame->headers.isEmpty(), "headers stay empty");
        check(!frame->body.has_value(), "body stays absent");
        const QString name = STOMPFrame::textOf(frame->command);
        check(STOMPFrame::commandFromText(name) == frame->command, "command text converts back");
        check(view.substr(0, static_cast<std::size_t>(name.size())) ==
                  std::u16string_view(reinterpret_cast<const char16_t *>(name.utf16()),
                                      static_cast<std::size_t>(name.size())),
              "command text is the start of the frame");
    }

    // The same text as session id and attachment of the replies.
    const QString connected = STOMPFrame::connected(text, text);
    check(connected.size() == 30 + text.size() + 12 + text.size() + 3, "CONNECTED length");
    check(connected.startsWith(u"CONNECTED\nversion:1.2\nsession="), "CONNECTED prefix");
    check(connected.mid(30, text.size()) == text, "CONNECTED session id");
    check(connected.mid(30 + text.size(), 12) == u"\nattachment:", "CONNECTED middle");
    check(connected.endsWith(QStringLiteral("\n\n") + QChar(u'\0')), "CONNECTED tail");
    check(STOMPFrame::connected(text, std::nullopt).size() == 30 + text.size() + 12 + 3,
          "CONNECTED without attachment");

    const QString message = STOMPFrame::message(text);
    check(message.size() == 28 + text.size() + 3, "MESSAGE length");
    check(message.startsWith(u"MESSAGE\nAttachment_received:"), "MESSAGE prefix");
    check(message.mid(28, text.size()) == text, "MESSAGE attachment");
    check(message.endsWith(QStringLiteral("\n\n") + QChar(u'\0')), "MESSAGE tail");
    return 0;
}
