#pragma once

#include <QString>
#include <QVariant>
#include <QVariantMap>
#include <functional>
#include <optional>
#include <variant>

// What a POS frame asks for. Malformed frames are not answered: the caller turns a
// RequestError into a fatal stop, because the service trusts its single POS client and a
// frame it cannot read means the client and the service disagree about everything else.
struct RequestError {
    QString reason;
};

// Step one: the frame must be ASCII-only JSON whose top level is an object. Numbers get the
// types the service has always given them (QJsonDocument's), which other code relies on: an
// integral value that fits in 64 bits is a qlonglong (65, 65.0, 1e2 and -0 alike), anything
// else a double. A key given twice keeps its last value.
std::variant<QVariantMap, RequestError> parseRequestObject(const QString &frameText);

// Step two: the five-key dictionary the rest of the service works with. "data" becomes a
// byte buffer; "ip", "port", "van" and "requesttype" keep their JSON types, and the ones
// the POS left out are null (QVariant holding nullptr).
std::variant<QVariantMap, RequestError> buildInternalRequest(const QVariantMap &requestObject);

// Steps one and two in a single reading of the frame, as the service runs them: the same
// internal request, or the same refusal, that parseRequestObject and then
// buildInternalRequest give, but "data" goes from the text straight into bytes. A slip of
// a megabyte is a million numbers, and a list of a million QVariants on the way would cost
// more than reading the text.
struct ParsedRequest {
    QVariantMap object;   // the frame's keys as parseRequestObject reads them, "data" left out
    QVariantMap internal; // the five-key dictionary
};
std::variant<ParsedRequest, RequestError> parseRequest(const QString &frameText);

enum class RouteTarget { KitchenPrint, TcpTerminal, UsbTerminal, Drop };

// Step three: where the request goes. Kitchen orders never look at MAIN_INTERFACE, so
// kitchen printing works whichever terminal is set, or none. `mainInterface` is asked
// for only when it matters.
std::variant<RouteTarget, RequestError>
routeFor(const QVariantMap &requestObject, const std::function<std::optional<QVariant>()> &mainInterface);

namespace RequestKey {
inline const QString data = QStringLiteral("data");
inline const QString ip = QStringLiteral("ip");
inline const QString port = QStringLiteral("port");
inline const QString van = QStringLiteral("van");
inline const QString requesttype = QStringLiteral("requesttype");
} // namespace RequestKey

QVariant nullValue();
bool isNull(const QVariant &value);
