#pragma once

#include <QByteArrayView>
#include <QString>
#include <optional>

// Checks that `text` is one JSON value exactly as RFC 8259 writes it, surrounded by
// nothing but JSON whitespace. Returns a one-line description of the first fault, or
// nothing when the text is valid.
//
// Qt's own parser is forgiving (raw control characters inside strings, "1.", unpaired
// surrogate escapes turned into U+FFFD); a POS request that only a forgiving parser
// accepts is a request the POS did not mean to send, so it must be refused.
std::optional<QString> strictJsonFault(QByteArrayView text);
