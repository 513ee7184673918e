#include "textform.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QStringDecoder>
#include <cmath>
#include <optional>

QString textualForm(const QVariant &value) {
    switch (value.typeId()) {
    case QMetaType::QString:
        return value.toString();
    case QMetaType::Bool:
        return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    case QMetaType::Nullptr:
        return QStringLiteral("<null>");
    case QMetaType::Double: {
        const double d = value.toDouble();
        if (std::isfinite(d) && d == std::trunc(d) && std::fabs(d) < 1e18)
            return QString::number(static_cast<qint64>(d));
        return QString::number(d, 'g', 17);
    }
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return value.toString();
    case QMetaType::QVariantList:
    case QMetaType::QVariantMap: {
        const QJsonValue json = QJsonValue::fromVariant(value);
        const QJsonDocument doc =
            json.isArray() ? QJsonDocument(json.toArray()) : QJsonDocument(json.toObject());
        return QString::fromUtf8(doc.toJson(QJsonDocument::Compact));
    }
    default:
        return value.toString();
    }
}

std::optional<qint32> parseInt32(const QString &text) {
    qsizetype i = 0;
    bool negative = false;
    if (i < text.size() && (text[i] == u'+' || text[i] == u'-')) {
        negative = text[i] == u'-';
        ++i;
    }
    if (i == text.size())
        return std::nullopt;
    qint64 magnitude = 0;
    for (; i < text.size(); ++i) {
        const char16_t c = text[i].unicode();
        if (c < u'0' || c > u'9')
            return std::nullopt;
        magnitude = magnitude * 10 + (c - u'0');
        if (magnitude > 2147483648LL)
            return std::nullopt;
    }
    const qint64 value = negative ? -magnitude : magnitude;
    if (value > 2147483647LL)
        return std::nullopt;
    return static_cast<qint32>(value);
}

std::optional<QString> strictUtf8(const QByteArray &bytes) {
    // Stateless: the bytes are the whole text, so a character left unfinished at the end
    // is an error. A decoder that kept state would hold it back for a next call that never
    // comes, and "김치찌개" cut inside its last character would print as "김치찌".
    QStringDecoder decoder(QStringDecoder::Utf8,
                           QStringConverter::Flag::Stateless | QStringConverter::Flag::ConvertInitialBom);
    QString text = decoder.decode(bytes);
    if (decoder.hasError())
        return std::nullopt;
    return text;
}
