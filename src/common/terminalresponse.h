#pragma once

#include <QString>
#include <QVariantMap>

// A card terminal's answer as the POS receives it:
// {"response":{"data":<text>},"devicetype":"CAT","devicename":<model>}.
inline QVariantMap terminalResponse(const QString &text, const QString &deviceName) {
    return QVariantMap{{QStringLiteral("response"), QVariantMap{{QStringLiteral("data"), text}}},
                       {QStringLiteral("devicetype"), QStringLiteral("CAT")},
                       {QStringLiteral("devicename"), deviceName}};
}
