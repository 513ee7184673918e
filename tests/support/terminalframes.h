#pragma once

#include "devsim/vendorscripts.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>
#include <QStringList>

// A terminal request as the POS sends it: the vendor's frame (or a slip's UTF-8 text) as
// byte values in "data".
inline QString terminalFrame(const QString &van, const QByteArray &bytes,
                             const QString &requestType = QStringLiteral("payment")) {
    QStringList values;
    for (const char c : bytes)
        values << QString::number(static_cast<unsigned char>(c));
    return QStringLiteral(R"({"requesttype":"%1","van":"%2","data":[%3]})")
        .arg(requestType, van, values.join(u','));
}

// The answer the POS must receive, as a JSON object (so that key order does not matter).
inline QJsonObject expectedAnswer(const QString &text, const QString &deviceName) {
    return QJsonObject{{QStringLiteral("response"), QJsonObject{{QStringLiteral("data"), text}}},
                       {QStringLiteral("devicetype"), QStringLiteral("CAT")},
                       {QStringLiteral("devicename"), deviceName}};
}

inline QJsonObject jsonObject(const QString &text) {
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

// A KIS result: STX, two header bytes, the text, ETX.
inline QByteArray kisResult(const QByteArray &text) {
    return devsim::kisResultFrame(text);
}
