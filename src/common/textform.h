#pragma once

#include <QString>
#include <QVariant>
#include <optional>

// The text a request value stands for when it is compared or parsed as text: a string is
// itself, a whole number is its decimal digits (9100 and 9100.0 are both "9100"), a
// boolean is "1" or "0", and null is "<null>". The POS may send a port or a request type
// either as a JSON number or as a string, and both must mean the same thing.
QString textualForm(const QVariant &value);

// Base-10 signed 32-bit integer: an optional "+" or "-", then decimal digits only.
std::optional<qint32> parseInt32(const QString &text);
