#pragma once

#include <QList>
#include <QString>
#include <QStringList>

// Chromium-family browsers (147 and later) hold back a WebSocket that a page from a public
// site opens to this computer (ws://127.0.0.1:49999/) until the cashier allows a prompt,
// unless the machine's managed policy LocalNetworkAccessAllowedForUrls lists the page's
// origin. `teranocounter --browser-policy` writes that policy for each browser we know
// of, in a file of our own next to whatever the shop's administrator put there.
namespace BrowserPolicy {

inline const QString policyKey = QStringLiteral("LocalNetworkAccessAllowedForUrls");
inline const QString fileName = QStringLiteral("teranocounter.json");
// Prepended to the browsers' /etc folders, so that tests write into folders of their own
// (and need no root).
inline constexpr char rootVariable[] = "TERANOCOUNTER_POLICY_ROOT";

struct Browser {
    QString name;   // "Chromium"
    QString folder; // its managed-policy folder, with the root prefix
    QString file() const { return folder + u'/' + fileName; }
};

// Chromium, Google Chrome, Microsoft Edge and Brave, under `root` ("" for the real ones).
QList<Browser> browsers(const QString &root);
// TERANOCOUNTER_POLICY_ROOT, or "" when it is not set.
QString rootFromEnvironment();

// One line per browser, in order: what was done, or why it could not be.
struct Outcome {
    bool ok = true;
    QString line;
};

// Writes {"LocalNetworkAccessAllowedForUrls": origins} into each browser's folder (made
// 0755 when missing), replacing an earlier list; the file is 0644 whatever the umask, so
// that a browser run by any user reads it, and is replaced atomically.
QList<Outcome> write(const QStringList &origins, const QString &root);
// Removes each browser's file; the folders stay.
QList<Outcome> remove(const QString &root);

// The origins the policy would list from WEBSOCKET_ALLOWED_ORIGINS: "null" is left out,
// since no policy can name it.
QStringList originsFromSettings();

// Whether the browsers treat a page of this origin as one of this computer's own (a local
// file, localhost, a loopback address), which may reach the service without a policy.
bool isLocalOrigin(const QString &origin);

// `text` as one word for a POSIX shell.
QString shellQuoted(const QString &text);
// The absolute path of the running executable.
QString programPath();
// "sudo PROGRAM ARGUMENT...", each word quoted for a shell where it needs to be.
QString sudoCommand(const QString &program, const QStringList &arguments);
// "sudo teranocounter --browser-policy ORIGIN...", ready to paste into a terminal; the
// executable is named as the terminal will find it.
QString commandFor(const QStringList &origins);

} // namespace BrowserPolicy
