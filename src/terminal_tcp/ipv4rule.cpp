#include "ipv4rule.h"

#include <QRegularExpression>

bool matchesIPv4Rule(const QString &text) {
    static const QRegularExpression rule(
        QStringLiteral("^(([0-9]|[1-9][0-9]|1[0-9]{2}|2[0-4][0-9]|25[0-5])\\.){3}"
                       "([0-9]|[1-9][0-9]|1[0-9]{2}|2[0-4][0-9]|25[0-5])$"));
    // "$" would also match before a final line feed; the whole text must be the address.
    return !text.endsWith(u'\n') && rule.match(text).hasMatch();
}
