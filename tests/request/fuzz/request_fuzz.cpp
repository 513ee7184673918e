// libFuzzer target for the request frame reader. Every input is read both ways the service
// has (parseRequest, and parseRequestObject followed by buildInternalRequest); accepting
// or refusing are both outcomes, and what must hold for any input is checked:
//  - the two ways give the same internal request and object, or the same refusal;
//  - a refusal is one of the known reasons, and the non-ASCII one comes exactly for
//    frames with a character outside ASCII;
//  - an accepted frame gives the five keys, "data" as bytes, the other four as the object
//    has them or null, and an object without "data";
//  - an accepted object written back out as JSON (by Qt's writer, with \u escapes for
//    whatever is not ASCII) is read back as the same object, key for key, type for type
//    and bit for bit.
#include "gateway/request.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QString>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void check(bool condition, const char *what, const QString &frame) {
    if (!condition) {
        std::fprintf(stderr, "property violated: %s\nframe: %s\n", what, qPrintable(frame.left(300)));
        std::abort();
    }
}

bool sameValue(const QVariant &a, const QVariant &b) {
    if (a.typeId() != b.typeId())
        return false;
    switch (a.typeId()) {
    case QMetaType::QVariantMap: {
        const QVariantMap x = a.toMap(), y = b.toMap();
        if (x.keys() != y.keys())
            return false;
        for (auto it = x.begin(); it != x.end(); ++it)
            if (!sameValue(it.value(), y.value(it.key())))
                return false;
        return true;
    }
    case QMetaType::QVariantList: {
        const QVariantList x = a.toList(), y = b.toList();
        if (x.size() != y.size())
            return false;
        for (qsizetype i = 0; i < x.size(); ++i)
            if (!sameValue(x[i], y[i]))
                return false;
        return true;
    }
    case QMetaType::Double: {
        const double x = a.toDouble(), y = b.toDouble();
        return std::memcmp(&x, &y, sizeof x) == 0;
    }
    // QVariant's == takes a null text for an empty one; whoever calls isNull() would not.
    case QMetaType::QString:
        return a == b && a.toString().isNull() == b.toString().isNull();
    case QMetaType::QByteArray:
        return a == b && a.toByteArray().isNull() == b.toByteArray().isNull();
    case QMetaType::LongLong:
    case QMetaType::Bool:
    case QMetaType::Nullptr:
        return a == b;
    default:
        std::fprintf(stderr, "unexpected type in a request: %s\n", a.typeName());
        std::abort();
    }
}

bool isKnownRefusal(const QString &reason) {
    return reason.startsWith(QStringLiteral("request frame contains a non-ASCII character U+")) ||
           reason.startsWith(QStringLiteral("request frame is not JSON: ")) ||
           reason == QStringLiteral("request frame is not a JSON object") ||
           reason == QStringLiteral("request has no \"data\"") ||
           reason == QStringLiteral("request \"data\" is not an array of integers 0 to 255");
}

// The object as JSON text that is ASCII only, as a POS would have to send it.
QString written(const QVariantMap &object) {
    const QString json =
        QString::fromUtf8(QJsonDocument(QJsonObject::fromVariantMap(object)).toJson(QJsonDocument::Compact));
    QString ascii;
    ascii.reserve(json.size());
    for (const QChar c : json)
        if (c.unicode() > 0x7F)
            ascii += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QChar(u'0'));
        else
            ascii += c;
    return ascii;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    // Text frames reach the gateway as QStrings decoded from UTF-8; the fuzzer's bytes go
    // the same way, invalid sequences included.
    const QString frame =
        QString::fromUtf8(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    bool ascii = true;
    for (const QChar c : frame)
        ascii = ascii && c.unicode() <= 0x7F;

    const auto single = parseRequest(frame);
    const auto object = parseRequestObject(frame);
    const auto *objectMap = std::get_if<QVariantMap>(&object);
    const auto steps = objectMap ? buildInternalRequest(*objectMap) : object;

    if (const auto *error = std::get_if<RequestError>(&single)) {
        check(isKnownRefusal(error->reason), "a refusal gives a known reason", frame);
        check(error->reason.startsWith(QStringLiteral("request frame contains a non-ASCII")) == !ascii,
              "the non-ASCII refusal comes exactly for frames with a non-ASCII character", frame);
        const auto *stepsError = std::get_if<RequestError>(&steps);
        check(stepsError && stepsError->reason == error->reason, "the steps refuse the same way", frame);
        return 0;
    }

    check(ascii, "only ASCII frames are accepted", frame);
    const ParsedRequest &request = std::get<ParsedRequest>(single);
    check(objectMap && std::holds_alternative<QVariantMap>(steps), "the steps accept it too", frame);
    check(sameValue(request.internal, std::get<QVariantMap>(steps)),
          "the steps give the same internal request", frame);
    QVariantMap withoutData = *objectMap;
    withoutData.remove(RequestKey::data);
    check(sameValue(request.object, withoutData), "the object is the steps' without \"data\"", frame);

    check(request.internal.keys() == (QStringList{RequestKey::data, RequestKey::ip, RequestKey::port,
                                                  RequestKey::requesttype, RequestKey::van}),
          "the internal request has the five keys", frame);
    check(request.internal.value(RequestKey::data).typeId() == QMetaType::QByteArray, "\"data\" is bytes",
          frame);
    check(objectMap->value(RequestKey::data).toList().size() ==
              request.internal.value(RequestKey::data).toByteArray().size(),
          "one byte per \"data\" element", frame);
    for (const QString &key : {RequestKey::ip, RequestKey::port, RequestKey::van, RequestKey::requesttype})
        check(sameValue(request.internal.value(key),
                        request.object.contains(key) ? request.object.value(key) : nullValue()),
              "the other keys are the object's, or null", frame);

    const QString again = written(*objectMap);
    const auto reread = parseRequestObject(again);
    check(std::holds_alternative<QVariantMap>(reread) && sameValue(std::get<QVariantMap>(reread), *objectMap),
          "the object written out reads back the same", frame);
    const auto rereadRequest = parseRequest(again);
    check(std::holds_alternative<ParsedRequest>(rereadRequest) &&
              sameValue(std::get<ParsedRequest>(rereadRequest).internal, request.internal),
          "the internal request of the written-out object is the same", frame);
    return 0;
}
