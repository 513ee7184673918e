#pragma once

#include <QByteArray>

// A request body sent with "Transfer-Encoding: chunked": hexadecimal chunk sizes, each
// chunk followed by CRLF, ended by a chunk of size 0 and optional trailer lines. curl and
// most HTTP libraries send a body this way when they do not know its length up front.
struct ChunkedBody {
    enum class State {
        Incomplete, // the final chunk has not arrived yet
        Complete,   // `body` holds the decoded body, `consumed` the bytes it took
        Malformed,
        TooLarge, // the decoded body would exceed the limit
    };
    State state = State::Incomplete;
    QByteArray body;
    qsizetype consumed = 0;

    // Decodes what has arrived so far of a chunked body (the bytes after the request head).
    static ChunkedBody decode(const QByteArray &data, qint64 maxBodySize);
};
