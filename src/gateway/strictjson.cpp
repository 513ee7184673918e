#include "strictjson.h"

namespace {

class Checker {
public:
    explicit Checker(QByteArrayView text) : text(text) {}

    std::optional<QString> run() {
        skipWhitespace();
        if (!value(0))
            return fault;
        skipWhitespace();
        if (pos != text.size())
            return describe("unexpected text after the JSON value");
        return std::nullopt;
    }

private:
    static constexpr int maxDepth = 512;

    bool fail(const char *what) {
        if (!fault)
            fault = describe(what);
        return false;
    }
    QString describe(const char *what) const {
        return QStringLiteral("%1 at offset %2").arg(QLatin1String(what)).arg(pos);
    }
    bool atEnd() const { return pos >= text.size(); }
    char peek() const { return atEnd() ? '\0' : text[pos]; }
    static bool isDigit(char c) { return c >= '0' && c <= '9'; }
    static int hexValue(char c) {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    }

    void skipWhitespace() {
        while (!atEnd() && (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r'))
            ++pos;
    }

    bool literal(QByteArrayView word) {
        if (text.sliced(pos).startsWith(word)) {
            pos += word.size();
            return true;
        }
        return fail("invalid literal");
    }

    bool value(int depth) {
        if (depth > maxDepth)
            return fail("nesting too deep");
        switch (peek()) {
        case '{':
            return object(depth);
        case '[':
            return array(depth);
        case '"':
            return string();
        case 't':
            return literal("true");
        case 'f':
            return literal("false");
        case 'n':
            return literal("null");
        default:
            if (peek() == '-' || isDigit(peek()))
                return number();
            return fail(atEnd() ? "unexpected end of text" : "unexpected character");
        }
    }

    bool object(int depth) {
        ++pos; // {
        skipWhitespace();
        if (peek() == '}') {
            ++pos;
            return true;
        }
        for (;;) {
            skipWhitespace();
            if (peek() != '"')
                return fail("expected a member name");
            if (!string())
                return false;
            skipWhitespace();
            if (peek() != ':')
                return fail("expected ':'");
            ++pos;
            skipWhitespace();
            if (!value(depth + 1))
                return false;
            skipWhitespace();
            if (peek() == ',') {
                ++pos;
                continue;
            }
            if (peek() == '}') {
                ++pos;
                return true;
            }
            return fail("expected ',' or '}'");
        }
    }

    bool array(int depth) {
        ++pos; // [
        skipWhitespace();
        if (peek() == ']') {
            ++pos;
            return true;
        }
        for (;;) {
            skipWhitespace();
            if (!value(depth + 1))
                return false;
            skipWhitespace();
            if (peek() == ',') {
                ++pos;
                continue;
            }
            if (peek() == ']') {
                ++pos;
                return true;
            }
            return fail("expected ',' or ']'");
        }
    }

    // Reads the four hex digits after "\u"; -1 when they are not there.
    int hexQuad() {
        if (pos + 4 > text.size())
            return -1;
        int code = 0;
        for (int i = 0; i < 4; ++i) {
            const int digit = hexValue(text[pos + i]);
            if (digit < 0)
                return -1;
            code = code * 16 + digit;
        }
        pos += 4;
        return code;
    }

    bool string() {
        ++pos; // opening quote
        for (;;) {
            if (atEnd())
                return fail("unterminated string");
            const unsigned char c = static_cast<unsigned char>(text[pos]);
            if (c == '"') {
                ++pos;
                return true;
            }
            if (c < 0x20)
                return fail("unescaped control character in a string");
            if (c != '\\') {
                ++pos;
                continue;
            }
            ++pos;
            const char escape = peek();
            ++pos;
            switch (escape) {
            case '"':
            case '\\':
            case '/':
            case 'b':
            case 'f':
            case 'n':
            case 'r':
            case 't':
                break;
            case 'u': {
                const int code = hexQuad();
                if (code < 0)
                    return fail("invalid \\u escape");
                if (code >= 0xDC00 && code <= 0xDFFF)
                    return fail("unpaired low surrogate escape");
                if (code >= 0xD800 && code <= 0xDBFF) {
                    if (!text.sliced(pos).startsWith("\\u"))
                        return fail("unpaired high surrogate escape");
                    pos += 2;
                    const int low = hexQuad();
                    if (low < 0xDC00 || low > 0xDFFF)
                        return fail("unpaired high surrogate escape");
                }
                break;
            }
            default:
                return fail("invalid escape");
            }
        }
    }

    bool number() {
        if (peek() == '-')
            ++pos;
        if (peek() == '0') {
            ++pos;
        } else if (isDigit(peek())) {
            while (isDigit(peek()))
                ++pos;
        } else {
            return fail("invalid number");
        }
        if (peek() == '.') {
            ++pos;
            if (!isDigit(peek()))
                return fail("invalid number");
            while (isDigit(peek()))
                ++pos;
        }
        if (peek() == 'e' || peek() == 'E') {
            ++pos;
            if (peek() == '+' || peek() == '-')
                ++pos;
            if (!isDigit(peek()))
                return fail("invalid number");
            while (isDigit(peek()))
                ++pos;
        }
        return true;
    }

    QByteArrayView text;
    qsizetype pos = 0;
    std::optional<QString> fault;
};

} // namespace

std::optional<QString> strictJsonFault(QByteArrayView text) {
    return Checker(text).run();
}
