#pragma once

#include "jsonframe.h"

#include <QString>
#include <QVariant>
#include <QVariantMap>
#include <variant>

// What a POS frame asks for.

// Step one: the frame as JSON (readJsonFrame), its top-level object.
std::variant<QVariantMap, RequestError> parseRequestObject(const QString &frameText);

// Step two: the five-key dictionary the rest of the service works with. "data" becomes a
// byte buffer; "ip", "port", "van" and "requesttype" keep their JSON types, and the ones
// the POS left out are null (QVariant holding nullptr).
std::variant<QVariantMap, RequestError> buildInternalRequest(const QVariantMap &requestObject);

// Steps one and two in a single reading of the frame, as the service runs them: the same
// internal request, or the same refusal, that parseRequestObject and then
// buildInternalRequest give, but "data" goes from the text straight into bytes.
struct ParsedRequest {
    QVariantMap object;   // the frame's keys as parseRequestObject reads them, "data" left out
    QVariantMap internal; // the five-key dictionary
};
std::variant<ParsedRequest, RequestError> parseRequest(const QString &frameText);

namespace RequestKey {
inline const QString data = QStringLiteral("data");
inline const QString ip = QStringLiteral("ip");
inline const QString port = QStringLiteral("port");
inline const QString van = QStringLiteral("van");
inline const QString requesttype = QStringLiteral("requesttype");
} // namespace RequestKey
