#include "originpolicy.h"

#include "common/log.h"
#include "common/settings.h"

#include <QUrl>

namespace OriginPolicy {

QStringList allowedOrigins() {
    return Settings::shared().list(Settings::Key::WebSocketAllowedOrigins).value_or(QStringList());
}

bool allows(const QString &origin) {
    const QStringList allowed = allowedOrigins();
    return allowed.isEmpty() || allowed.contains(origin);
}

bool pinFirstOrigin() {
    return Settings::shared().isOn(Settings::Key::WebSocketPinFirstOrigin);
}

bool allowOrigin(const QString &origin) {
    QStringList allowed = allowedOrigins();
    if (allowed.contains(origin))
        return false;
    allowed << origin;
    // One text, as `--set` writes it, so that the file reads the same whoever wrote it.
    Settings::shared().set(Settings::Key::WebSocketAllowedOrigins, allowed.join(u','));
    return true;
}

void clearAllowedOrigins() {
    Settings::shared().remove(Settings::Key::WebSocketAllowedOrigins);
}

void reportNullEntry() {
    if (allowedOrigins().contains(QLatin1String("null")))
        logLine(nullWarning);
}

std::optional<QString> originProblem(const QString &text) {
    if (text == QLatin1String("null"))
        return std::nullopt;
    const QString form = QStringLiteral("an origin is scheme://host or scheme://host:port, as in "
                                        "http://192.168.0.20:8080");
    for (const QChar c : text)
        if (c.isSpace() || c == u',')
            return QStringLiteral("\"%1\" has a space or a comma: %2").arg(text, form);
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty() || !url.userInfo().isEmpty() ||
        url.hasQuery() || url.hasFragment())
        return QStringLiteral("\"%1\" is not an origin: %2").arg(text, form);
    static const QList<QPair<QString, int>> defaultPorts{{QStringLiteral("http"), 80},
                                                         {QStringLiteral("ws"), 80},
                                                         {QStringLiteral("https"), 443},
                                                         {QStringLiteral("wss"), 443}};
    QString canonical = url.scheme() + QStringLiteral("://");
    const QString host = url.host(QUrl::FullyEncoded);
    canonical += host.contains(u':') ? u'[' + host + u']' : host;
    const int port = url.port();
    if (port >= 0 && !defaultPorts.contains({url.scheme(), port}))
        canonical += u':' + QString::number(port);
    if (canonical != text)
        return QStringLiteral("a browser sends \"%1\" as \"%2\": write that").arg(text, canonical);
    return std::nullopt;
}

} // namespace OriginPolicy
