#include "jsonframe.h"

#include <simdjson.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>

namespace od = simdjson::ondemand;

QVariant nullValue() {
    return QVariant::fromValue(nullptr);
}

bool isNull(const QVariant &value) {
    return value.typeId() == QMetaType::Nullptr;
}

std::optional<char> byteOf(const QVariant &element) {
    double number;
    switch (element.typeId()) {
    case QMetaType::Double:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        number = element.toDouble();
        break;
    default:
        return std::nullopt;
    }
    if (!(number >= 0 && number <= 255) || number != std::trunc(number))
        return std::nullopt;
    return static_cast<char>(static_cast<unsigned char>(number));
}

namespace {

// Values nested deeper than this are refused. A POS request is a few levels deep; the
// limit only keeps a hostile frame from exhausting the stack.
constexpr int maxDepth = 512;

// simdjson reads whole blocks and needs this many readable bytes after the text.
constexpr size_t padding = simdjson::SIMDJSON_PADDING;
bool isJsonSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// A number's text as simdjson hands it over: up to the next structural character, blanks
// included.
std::string_view trimmed(std::string_view token) {
    while (!token.empty() && isJsonSpace(token.back()))
        token.remove_suffix(1);
    return token;
}

// RFC 8259's number: -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?
bool isJsonNumber(std::string_view text) {
    size_t i = 0;
    const auto digitAt = [&](size_t k) { return k < text.size() && isDigit(text[k]); };
    if (i < text.size() && text[i] == '-')
        ++i;
    if (!digitAt(i))
        return false;
    if (text[i++] != '0')
        while (digitAt(i))
            ++i;
    if (i < text.size() && text[i] == '.') {
        if (!digitAt(++i))
            return false;
        while (digitAt(i))
            ++i;
    }
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        if (i < text.size() && (text[i] == '+' || text[i] == '-'))
            ++i;
        if (!digitAt(i))
            return false;
        while (digitAt(i))
            ++i;
    }
    return i == text.size();
}

// The value of a "data" element written as a plain integer 0 to 255, or -1 for anything
// else, which is then read in full.
int plainByte(std::string_view token) {
    int value = 0;
    size_t i = 0;
    for (; i < token.size() && i < 4 && isDigit(token[i]); ++i)
        value = value * 10 + (token[i] - '0');
    if (i == 0 || i > 3 || (token[0] == '0' && i > 1) || value > 255)
        return -1;
    for (; i < token.size(); ++i)
        if (!isJsonSpace(token[i]))
            return -1;
    return value;
}

// Turns the simdjson values of one frame into QVariants, stopping at the first fault. A
// top-level member named `bytesMember` goes straight into bytes and is left out of the
// object.
class FrameReader {
public:
    explicit FrameReader(const QString &bytesMember) : bytesMember(bytesMember) {}

    using Data = JsonFrame::Data;

    QString fault;
    // The last top-level `bytesMember` the frame gave, as a key given twice keeps its last
    // value.
    Data data = Data::Absent;
    QByteArray bytes;

    bool readObject(od::object object, int depth, QVariantMap &out) {
        for (auto field : object) {
            od::field member;
            if (const auto error = std::move(field).get(member))
                return fail(error);
            std::string_view key;
            if (member.unescaped_key().get(key) != simdjson::SUCCESS)
                return fail("invalid escape in a member name");
            const QString name = QString::fromUtf8(key.data(), static_cast<qsizetype>(key.size()));
            if (depth == 0 && !bytesMember.isEmpty() && name == bytesMember) {
                if (!readData(member.value()))
                    return false;
                continue;
            }
            QVariant value;
            if (!readValue(member.value(), depth + 1, value))
                return false;
            out.insert(name, value);
        }
        return true;
    }

    bool readArray(od::array array, int depth, QVariantList &out) {
        for (auto element : array) {
            od::value item;
            if (const auto error = std::move(element).get(item))
                return fail(error);
            QVariant value;
            if (!readValue(item, depth + 1, value))
                return false;
            out.append(value);
        }
        return true;
    }

private:
    bool fail(simdjson::error_code error) {
        fault = QString::fromLatin1(simdjson::error_message(error));
        return false;
    }
    bool fail(const char *what) {
        fault = QString::fromLatin1(what);
        return false;
    }

    bool readValue(od::value value, int depth, QVariant &out) {
        if (depth > maxDepth)
            return fail("nesting too deep");
        od::json_type type;
        if (const auto error = value.type().get(type))
            return fail(error);
        switch (type) {
        case od::json_type::object: {
            od::object object;
            if (const auto error = value.get_object().get(object))
                return fail(error);
            QVariantMap map;
            if (!readObject(object, depth, map))
                return false;
            out = map;
            return true;
        }
        case od::json_type::array: {
            od::array array;
            if (const auto error = value.get_array().get(array))
                return fail(error);
            QVariantList list;
            if (!readArray(array, depth, list))
                return false;
            out = list;
            return true;
        }
        case od::json_type::string: {
            std::string_view text;
            if (value.get_string().get(text) != simdjson::SUCCESS)
                return fail("invalid escape in a string");
            out = QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
            return true;
        }
        case od::json_type::boolean: {
            bool flag;
            if (value.get_bool().get(flag) != simdjson::SUCCESS)
                return fail("invalid literal");
            out = flag;
            return true;
        }
        case od::json_type::null: {
            bool null;
            if (value.is_null().get(null) != simdjson::SUCCESS || !null)
                return fail("invalid literal");
            out = nullValue();
            return true;
        }
        case od::json_type::number:
            return readNumber(value, out);
        }
        return fail("unexpected value");
    }

    // Numbers are converted here rather than by simdjson: its On-Demand reader (3.0.1) can
    // round a long mantissa with an exponent to a wrong double, and the types must be the
    // ones the service has always had (QJsonDocument's), since routing and kitchen printing
    // compare them. An integer written without fraction or exponent that fits in 64 bits is
    // that integer; any other number is the double QByteArray::toDouble makes of it (the
    // conversion QJsonDocument uses, overflow and underflow refused alike), which becomes an
    // integer again when it is whole and fits: 65.0, 1e2, -0, and -9223372036854775809 as
    // the smallest qlonglong. simdjson moves past the value by itself.
    bool readNumber(od::value &value, QVariant &out) {
        const std::string_view token = trimmed(value.raw_json_token());
        if (!isJsonNumber(token))
            return fail("invalid number");
        const char *end = token.data() + token.size();
        if (token.find_first_of(".eE") == std::string_view::npos) {
            qint64 integer;
            const auto [stop, error] = std::from_chars(token.data(), end, integer);
            if (error == std::errc() && stop == end) {
                out = qlonglong(integer);
                return true;
            }
        }
        bool ok = false;
        const double number =
            QByteArray::fromRawData(token.data(), static_cast<qsizetype>(token.size())).toDouble(&ok);
        if (!ok)
            return fail("number out of range");
        if (number >= -9223372036854775808.0 && number < 9223372036854775808.0 &&
            number == std::trunc(number))
            out = qlonglong(number);
        else
            out = number;
        return true;
    }

    // A top-level "data": bytes when it is an array of integers 0 to 255. Whatever it is,
    // it is read to the end, because a fault further on must still refuse the frame as not
    // JSON.
    bool readData(od::value value) {
        constexpr int depth = 1;
        od::json_type type;
        if (const auto error = value.type().get(type))
            return fail(error);
        if (type != od::json_type::array) {
            QVariant ignored;
            if (!readValue(value, depth, ignored))
                return false;
            data = Data::NotBytes;
            bytes.clear();
            return true;
        }
        od::array array;
        if (const auto error = value.get_array().get(array))
            return fail(error);
        // Written through a pointer: QByteArray::append per byte is a call and a detach
        // check for each of a million elements.
        QByteArray read(64, Qt::Uninitialized);
        char *out = read.data();
        qsizetype count = 0;
        const auto put = [&](char byte) {
            if (count == read.size()) {
                read.resize(count * 2);
                out = read.data();
            }
            out[count++] = byte;
        };
        bool allBytes = true;
        for (auto element : array) {
            od::value item;
            if (const auto error = std::move(element).get(item))
                return fail(error);
            // The common case, without the detour through a QVariant.
            if (const int byte = plainByte(item.raw_json_token()); byte >= 0) {
                put(static_cast<char>(byte));
                continue;
            }
            QVariant other;
            if (!readValue(item, depth + 1, other))
                return false;
            if (const std::optional<char> byte = byteOf(other))
                put(*byte);
            else
                allBytes = false;
        }
        read.truncate(count);
        data = allBytes ? Data::Bytes : Data::NotBytes;
        bytes = allBytes ? read : QByteArray();
        return true;
    }

    const QString bytesMember;
};

// Narrows UTF-16 to bytes and returns every unit ORed together, so that one look at the
// result tells whether all were ASCII. One pass with no early exit, parameters that cannot
// alias and blocks of a fixed length, so that the compiler vectorises it at -O2.
char16_t narrow(const char16_t *__restrict in, char *__restrict out, qsizetype length) {
    constexpr qsizetype block = 32;
    char16_t seen = 0;
    qsizetype i = 0;
    for (; i + block <= length; i += block)
        for (qsizetype k = 0; k < block; ++k) {
            seen |= in[i + k];
            out[i + k] = static_cast<char>(in[i + k]);
        }
    for (; i < length; ++i) {
        seen |= in[i];
        out[i] = static_cast<char>(in[i]);
    }
    return seen;
}

// The frame as simdjson wants it: one byte per character and zeroed padding after the
// text. Null when the frame has a character outside ASCII, which `nonAscii` then holds.
QByteArray paddedAscii(const QString &frameText, QChar &nonAscii) {
    const qsizetype length = frameText.size();
    QByteArray ascii(length + qsizetype(padding), Qt::Uninitialized);
    char *out = ascii.data();
    if (narrow(reinterpret_cast<const char16_t *>(frameText.constData()), out, length) > 0x7F) {
        for (const QChar c : frameText)
            if (c.unicode() > 0x7F) {
                nonAscii = c;
                break;
            }
        return {};
    }
    std::memset(out + length, 0, padding);
    return ascii;
}

RequestError notJson(const QString &what, std::optional<qsizetype> offset = std::nullopt) {
    if (offset)
        return RequestError{
            QStringLiteral("request frame is not JSON: %1 at offset %2").arg(what).arg(*offset)};
    return RequestError{QStringLiteral("request frame is not JSON: %1").arg(what)};
}

// Where simdjson stopped, as an offset into the text, when it can say.
std::optional<qsizetype> offsetIn(od::document &document, const char *text, qsizetype length) {
    const char *at = nullptr;
    if (document.current_location().get(at) != simdjson::SUCCESS || at < text || at > text + length)
        return std::nullopt;
    return at - text;
}

bool atEnd(od::document &document) {
    const char *at = nullptr;
    return document.current_location().get(at) == simdjson::OUT_OF_BOUNDS;
}

// The ASCII check, then one simdjson reading of the text.
std::variant<QVariantMap, RequestError> readFrame(const QString &frameText, FrameReader &reader) {
    QChar nonAscii;
    const QByteArray ascii = paddedAscii(frameText, nonAscii);
    if (ascii.isNull())
        return RequestError{
            QStringLiteral("request frame contains a non-ASCII character U+%1")
                .arg(QString::number(nonAscii.unicode(), 16).toUpper().rightJustified(4, u'0'))};

    const qsizetype length = frameText.size();
    // A parser per frame: setting one up costs about a microsecond, and its buffers (several
    // times the text's length) go away with the frame instead of staying at the size of
    // the largest slip ever sent.
    od::parser parser;
    od::document document;
    if (const auto error =
            parser.iterate(ascii.constData(), size_t(length), size_t(ascii.size())).get(document))
        return notJson(QString::fromLatin1(simdjson::error_message(error)));

    od::json_type type;
    if (const auto error = document.type().get(type))
        return notJson(QString::fromLatin1(simdjson::error_message(error)),
                       offsetIn(document, ascii.constData(), length));
    // simdjson checks up front that the text ends with the bracket that closes the top
    // level, so its only complaint here is about the end of the text.
    const auto unclosed = [] {
        return notJson(QStringLiteral("the text does not end where its top-level object or array does"));
    };
    QVariantMap object;
    if (type == od::json_type::object) {
        od::object root;
        if (document.get_object().get(root) != simdjson::SUCCESS)
            return unclosed();
        if (!reader.readObject(root, 0, object))
            return notJson(reader.fault, offsetIn(document, ascii.constData(), length));
    } else if (type == od::json_type::array) {
        od::array root;
        if (document.get_array().get(root) != simdjson::SUCCESS)
            return unclosed();
        QVariantList ignored;
        if (!reader.readArray(root, 0, ignored))
            return notJson(reader.fault, offsetIn(document, ascii.constData(), length));
    } else {
        // A string, number or literal alone has never been taken for JSON here, valid or not
        // (the QJsonDocument reader it had before only read objects and arrays), so there is
        // nothing to read.
        return notJson(QStringLiteral("the top level is neither an object nor an array"), qsizetype(0));
    }
    if (!atEnd(document))
        return notJson(QStringLiteral("unexpected text after the JSON value"),
                       offsetIn(document, ascii.constData(), length));
    if (type != od::json_type::object)
        return RequestError{QStringLiteral("request frame is not a JSON object")};
    return object;
}

} // namespace

std::variant<JsonFrame, RequestError> readJsonFrame(const QString &frameText, const QString &bytesMember) {
    FrameReader reader(bytesMember);
    auto object = readFrame(frameText, reader);
    if (auto *error = std::get_if<RequestError>(&object))
        return *error;
    return JsonFrame{std::get<QVariantMap>(std::move(object)), reader.data, std::move(reader.bytes)};
}
