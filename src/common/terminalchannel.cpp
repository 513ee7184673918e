#include "terminalchannel.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>

namespace {

// One JSON text value, escaped the way QJsonDocument writes it.
QString jsonString(const QString &text) {
    const QByteArray wrapped = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(wrapped.mid(1, wrapped.size() - 2));
}

} // namespace

QString TerminalAnswer::json() const {
    // Written by hand for the order: the POS has always read the answer first, then what
    // answered it. QJsonObject would sort the keys and put "response" last.
    return QStringLiteral(R"({"response":{"data":%1},"devicetype":"CAT","devicename":%2})")
        .arg(jsonString(text), jsonString(deviceName));
}
