#include "request.h"

#include "strictjson.h"
#include "textform.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <cmath>
#include <functional>

QVariant nullValue() {
    return QVariant::fromValue(nullptr);
}

bool isNull(const QVariant &value) {
    return value.typeId() == QMetaType::Nullptr;
}

std::variant<QVariantMap, RequestError> parseRequestObject(const QString &frameText) {
    for (const QChar c : frameText)
        if (c.unicode() > 0x7F)
            return RequestError{QStringLiteral("request frame contains a non-ASCII character U+%1")
                                    .arg(QString::number(c.unicode(), 16).toUpper().rightJustified(4, u'0'))};

    const QByteArray ascii = frameText.toLatin1();
    if (const std::optional<QString> fault = strictJsonFault(ascii))
        return RequestError{QStringLiteral("request frame is not JSON: %1").arg(*fault)};
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(ascii, &error);
    if (error.error != QJsonParseError::NoError)
        return RequestError{QStringLiteral("request frame is not JSON: %1 at offset %2")
                                .arg(error.errorString())
                                .arg(error.offset)};
    if (!document.isObject())
        return RequestError{QStringLiteral("request frame is not a JSON object")};
    return document.object().toVariantMap();
}

namespace {

std::optional<QByteArray> bytesOf(const QVariant &value) {
    if (value.typeId() != QMetaType::QVariantList)
        return std::nullopt;
    const QVariantList list = value.toList();
    QByteArray bytes;
    bytes.reserve(list.size());
    for (const QVariant &element : list) {
        double number;
        switch (element.typeId()) {
        case QMetaType::Double:
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::LongLong:
        case QMetaType::ULongLong:
            number = element.toDouble();
            break;
        default:
            return std::nullopt;
        }
        if (!(number >= 0 && number <= 255) || number != std::trunc(number))
            return std::nullopt;
        bytes.append(static_cast<char>(static_cast<unsigned char>(number)));
    }
    return bytes;
}

} // namespace

std::variant<QVariantMap, RequestError> buildInternalRequest(const QVariantMap &requestObject) {
    if (!requestObject.contains(RequestKey::data))
        return RequestError{QStringLiteral("request has no \"data\"")};
    const std::optional<QByteArray> data = bytesOf(requestObject.value(RequestKey::data));
    if (!data)
        return RequestError{QStringLiteral("request \"data\" is not an array of integers 0 to 255")};

    QVariantMap internal;
    internal.insert(RequestKey::data, *data);
    for (const QString &key : {RequestKey::ip, RequestKey::port, RequestKey::van, RequestKey::requesttype})
        internal.insert(key, requestObject.contains(key) ? requestObject.value(key) : nullValue());
    return internal;
}

std::variant<RouteTarget, RequestError>
routeFor(const QVariantMap &requestObject, const std::function<std::optional<QVariant>()> &mainInterface) {
    if (!requestObject.contains(RequestKey::requesttype))
        return RequestError{QStringLiteral("request has no \"requesttype\"")};
    if (textualForm(requestObject.value(RequestKey::requesttype)) == QLatin1String("kitchenPrint"))
        return RouteTarget::KitchenPrint;

    const std::optional<QVariant> interface = mainInterface();
    if (!interface)
        return RequestError{QStringLiteral("MAIN_INTERFACE is not set; choose TCP or USB before sending "
                                           "terminal requests")};
    const QString name = textualForm(*interface);
    if (name == QLatin1String("TCP"))
        return RouteTarget::TCPcontrol;
    if (name == QLatin1String("USB"))
        return RouteTarget::USBcontrol;
    return RouteTarget::Drop;
}
