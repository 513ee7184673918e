#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>
#include <QVariantMap>
#include <optional>
#include <variant>

// Why a POS frame was not taken. Malformed frames are not answered: the caller turns a
// RequestError into a fatal stop, because the service trusts its single POS client and a
// frame it cannot read means the client and the service disagree about everything else.
struct RequestError {
    QString reason;
};

// A POS frame read as JSON: its top-level object, and the one member read straight into
// bytes when the caller names one.
struct JsonFrame {
    enum class Data { Absent, Bytes, NotBytes };

    QVariantMap object;
    Data data = Data::Absent;
    QByteArray bytes; // when data is Bytes
};

// The frame must be ASCII-only JSON whose top level is an object. Numbers get the types the
// service has always given them (QJsonDocument's), which other code relies on: an integral
// value that fits in 64 bits is a qlonglong (65, 65.0, 1e2 and -0 alike), anything else a
// double. A key given twice keeps its last value.
//
// With `bytesMember`, a top-level member of that name goes from the text straight into
// bytes (when it is an array of integers 0 to 255) and is left out of the object. A slip of
// a megabyte is a million numbers, and a list of a million QVariants on the way would cost
// more than reading the text.
std::variant<JsonFrame, RequestError> readJsonFrame(const QString &frameText,
                                                    const QString &bytesMember = {});

// One element of a byte array: a JSON number that is a whole number from 0 to 255.
std::optional<char> byteOf(const QVariant &element);

// JSON's null, as the frame's values hold it (QVariant holding nullptr).
QVariant nullValue();
bool isNull(const QVariant &value);
