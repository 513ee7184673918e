#include "terminalchannel.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>

namespace {

// One JSON text value as POS front ends were written to receive it: escaped as
// QJsonDocument escapes, and with every "/" written as "\/" (as the serialiser of the
// service's first platform wrote it). The parsed value is the same either way; a POS that
// compares or searches the raw text finds the bytes it was written against. Qt never
// writes "\/" itself and a "/" can only stand inside a string, so the replacement cannot
// touch anything else.
QString jsonString(const QString &text) {
    const QByteArray wrapped = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(wrapped.mid(1, wrapped.size() - 2)).replace(u'/', QStringLiteral("\\/"));
}

} // namespace

QString TerminalAnswer::json() const {
    // Written by hand for the order: the POS has always read the answer first, then what
    // answered it. QJsonObject would sort the keys and put "response" last.
    return QStringLiteral(R"({"response":{"data":%1},"devicetype":"CAT","devicename":%2})")
        .arg(jsonString(text), jsonString(deviceName));
}
