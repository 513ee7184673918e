// libFuzzer target that reads every input with both frame readers, the simdjson one the
// service uses and the QJsonDocument one it replaces, and stops on any disagreement:
//  - one accepts a frame the other refuses, or they refuse it for different reasons
//    ("not JSON" details may differ: the two parsers describe faults in their own words);
//  - the request objects differ in any key, type or value (doubles bit for bit);
//  - the single-reading path (parseRequest) gives another internal request, object or
//    refusal than parseRequestObject followed by buildInternalRequest on the old reader.
#include "qtjsonrequest.h"
#include "request.h"

#include <QString>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

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

bool sameRefusal(const QString &a, const QString &b) {
    static const QString notJson = QStringLiteral("request frame is not JSON");
    if (a.startsWith(notJson) || b.startsWith(notJson))
        return a.startsWith(notJson) && b.startsWith(notJson);
    return a == b;
}

// Either a map or the reason it was refused.
using Outcome = std::variant<QVariantMap, RequestError>;

bool sameOutcome(const Outcome &a, const Outcome &b) {
    if (a.index() != b.index())
        return false;
    if (const auto *error = std::get_if<RequestError>(&a))
        return sameRefusal(error->reason, std::get<RequestError>(b).reason);
    return sameValue(std::get<QVariantMap>(a), std::get<QVariantMap>(b));
}

QString describe(const Outcome &outcome) {
    if (const auto *error = std::get_if<RequestError>(&outcome))
        return QStringLiteral("refused: ") + error->reason;
    QString text = QStringLiteral("accepted:");
    const QVariantMap map = std::get<QVariantMap>(outcome);
    for (auto it = map.begin(); it != map.end(); ++it)
        text +=
            QStringLiteral(" %1=%2(%3)")
                .arg(it.key(), QString::fromLatin1(it.value().typeName()), it.value().toString().left(40));
    return text;
}

[[noreturn]] void disagree(const char *what, const QString &frame, const Outcome &old, const Outcome &now) {
    std::fprintf(stderr, "readers disagree on %s\nframe: %s\nold:   %s\nnew:   %s\n", what,
                 qPrintable(frame.left(300)), qPrintable(describe(old)), qPrintable(describe(now)));
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    // Text frames reach the gateway as QStrings decoded from UTF-8; the fuzzer's bytes go
    // the same way, invalid sequences included.
    const QString frame =
        QString::fromUtf8(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));

    const Outcome oldObject = parseRequestObjectWithQtJson(frame);
    const Outcome newObject = parseRequestObject(frame);
    if (!sameOutcome(oldObject, newObject))
        disagree("the request object", frame, oldObject, newObject);

    // Steps one and two on the old reader, against the single reading.
    Outcome oldInternal = oldObject;
    if (const auto *map = std::get_if<QVariantMap>(&oldObject))
        oldInternal = buildInternalRequest(*map);
    const auto parsed = parseRequest(frame);
    Outcome newInternal = RequestError{};
    if (const auto *error = std::get_if<RequestError>(&parsed))
        newInternal = *error;
    else
        newInternal = std::get<ParsedRequest>(parsed).internal;
    if (!sameOutcome(oldInternal, newInternal))
        disagree("the internal request", frame, oldInternal, newInternal);

    if (const auto *request = std::get_if<ParsedRequest>(&parsed)) {
        QVariantMap withoutData = std::get<QVariantMap>(oldObject);
        withoutData.remove(RequestKey::data);
        if (!sameValue(withoutData, request->object))
            disagree("the object beside the internal request", frame, withoutData, request->object);
    }
    return 0;
}
