#pragma once

#include "common/settings.h"

#include <QString>
#include <QStringList>
#include <optional>

// Which web pages may open the POS gateway. A browser lets any page it shows open
// ws://127.0.0.1:49999/, and says which site the page came from in the handshake's Origin
// header; WEBSOCKET_ALLOWED_ORIGINS lists the sites that may. A client that sends no Origin
// is not a browser page (a terminal program, a native POS) and is always let in: no page
// can leave the header out.
namespace OriginPolicy {

// The listed origins; empty when the setting is unset or blank, which lets every page in.
QStringList allowedOrigins();
// Whether a handshake with this Origin header value may complete.
bool allows(const QString &origin);
// WEBSOCKET_PIN_FIRST_ORIGIN=true: the first browser origin to connect is written into the
// list, so a fresh install locks itself to the shop's POS on first use.
bool pinFirstOrigin();

// Adds `origin` to the list, keeping the origins already there; false when it was listed.
bool allowOrigin(const QString &origin);
// Removes the setting: every page may connect again.
void clearAllowedOrigins();

// Why `text` would never match what a browser sends, or nothing when it would. A browser
// sends scheme://host with the port only when it is not the scheme's default, in lower case,
// with no path (and "null" for a local file or a sandboxed frame).
std::optional<QString> originProblem(const QString &text);

// What to say when "null" is let in: every site can make a page that sends it.
inline const QString nullWarning =
    QStringLiteral("%1 lists null: local files and the sandboxed frames of any site send the origin null, "
                   "so a page of any site can connect")
        .arg(Settings::name(Settings::Key::WebSocketAllowedOrigins));
// At start: the warning above, once, when the list has "null".
void reportNullEntry();

} // namespace OriginPolicy
