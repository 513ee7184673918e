#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>
#include <optional>

// The text a request value stands for when it is compared or parsed as text: a string is
// itself, a whole number is its decimal digits (9100 and 9100.0 are both "9100"), a
// boolean is "1" or "0", and null is "<null>". The POS may send a port or a request type
// either as a JSON number or as a string, and both must mean the same thing.
QString textualForm(const QVariant &value);

// UTF-8 bytes as text, or nothing when they are not valid UTF-8, including bytes that end
// inside a character. A leading byte-order mark is kept as a character: a printer or
// terminal gets exactly what was sent, or nothing. The one strict decoder of the code base.
std::optional<QString> strictUtf8(const QByteArray &bytes);

// Base-10 signed 32-bit integer: an optional "+" or "-", then decimal digits only.
std::optional<qint32> parseInt32(const QString &text);
