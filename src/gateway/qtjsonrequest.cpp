#include "qtjsonrequest.h"

#include "strictjson.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

std::variant<QVariantMap, RequestError> parseRequestObjectWithQtJson(const QString &frameText) {
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
