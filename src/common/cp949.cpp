#include "cp949.h"

#include <cerrno>
#include <iconv.h>

namespace {

// glibc's "CP949" table is the reference one; Qt's codec of the same name goes through
// ICU, which maps a different table, so iconv is used directly.
std::optional<QByteArray> convert(const char *to, const char *from, const QByteArray &input) {
    iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1))
        return std::nullopt;

    // Every code page 949 character is at most 2 bytes and every UTF-8 character at most
    // 4, so four times the input is always enough room in either direction.
    QByteArray output(input.size() * 4 + 4, Qt::Uninitialized);
    char *in = const_cast<char *>(input.constData());
    size_t inLeft = static_cast<size_t>(input.size());
    char *out = output.data();
    size_t outLeft = static_cast<size_t>(output.size());

    const size_t converted = iconv(cd, &in, &inLeft, &out, &outLeft);
    const size_t flushed = converted == static_cast<size_t>(-1)
                               ? converted
                               : iconv(cd, nullptr, nullptr, &out, &outLeft); // any shift state
    iconv_close(cd);

    // -1 is a character with no equivalent or an invalid sequence; a positive count of
    // irreversible conversions means iconv substituted something. Either way: no text.
    if (converted != 0 || flushed != 0 || inLeft != 0)
        return std::nullopt;
    output.truncate(output.size() - static_cast<qsizetype>(outLeft));
    return output;
}

} // namespace

namespace cp949 {

std::optional<QByteArray> encode(const QString &text) {
    // QString::toUtf8 replaces lone surrogates; refuse them instead.
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c.isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) {
            ++i;
            continue;
        }
        if (c.isSurrogate())
            return std::nullopt;
    }
    const std::optional<QByteArray> bytes = convert("CP949", "UTF-8", text.toUtf8());
    // glibc drops some characters without counting them as lost (the Unicode tag
    // characters U+E0000..U+E007F, for one): only bytes that read back as the very same
    // text are the text.
    if (!bytes || convert("UTF-8", "CP949", *bytes) != text.toUtf8())
        return std::nullopt;
    return bytes;
}

std::optional<QString> decode(const QByteArray &bytes) {
    const std::optional<QByteArray> utf8 = convert("UTF-8", "CP949", bytes);
    if (!utf8)
        return std::nullopt;
    return QString::fromUtf8(*utf8);
}

} // namespace cp949
