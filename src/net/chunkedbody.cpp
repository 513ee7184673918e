#include "chunkedbody.h"

namespace {

// No chunk-size line or trailer line of a real client comes near this.
constexpr qsizetype maxLineLength = 4096;

ChunkedBody finished(ChunkedBody::State state) {
    ChunkedBody result;
    result.state = state;
    return result;
}

} // namespace

ChunkedBody ChunkedBody::decode(const QByteArray &data, qint64 maxBodySize) {
    ChunkedBody result;
    qsizetype pos = 0;
    for (;;) {
        const qsizetype lineEnd = data.indexOf("\r\n", pos);
        if (lineEnd < 0)
            return finished(data.size() - pos > maxLineLength ? State::Malformed : State::Incomplete);
        if (lineEnd - pos > maxLineLength)
            return finished(State::Malformed);
        QByteArray sizeText = data.mid(pos, lineEnd - pos);
        if (const qsizetype extension = sizeText.indexOf(';'); extension >= 0)
            sizeText.truncate(extension); // chunk extensions carry nothing we use
        sizeText = sizeText.trimmed();
        if (sizeText.isEmpty() || sizeText.size() > 15)
            return finished(State::Malformed);
        qint64 size = 0;
        for (const char c : std::as_const(sizeText)) {
            const int digit = (c >= '0' && c <= '9')   ? c - '0'
                              : (c >= 'a' && c <= 'f') ? c - 'a' + 10
                              : (c >= 'A' && c <= 'F') ? c - 'A' + 10
                                                       : -1;
            if (digit < 0)
                return finished(State::Malformed);
            size = size * 16 + digit;
        }
        pos = lineEnd + 2;

        if (size == 0) {
            // Trailer lines, if any, then the empty line that ends the body.
            for (;;) {
                const qsizetype end = data.indexOf("\r\n", pos);
                if (end < 0)
                    return finished(data.size() - pos > maxLineLength ? State::Malformed : State::Incomplete);
                if (end - pos > maxLineLength)
                    return finished(State::Malformed);
                const bool last = end == pos;
                pos = end + 2;
                if (last) {
                    result.state = State::Complete;
                    result.consumed = pos;
                    return result;
                }
            }
        }

        if (result.body.size() + size > maxBodySize)
            return finished(State::TooLarge);
        if (data.size() < pos + size + 2)
            return finished(State::Incomplete);
        if (data.mid(pos + size, 2) != "\r\n")
            return finished(State::Malformed);
        result.body += data.mid(pos, size);
        pos += size + 2;
    }
}
