#include "browserpolicy.h"

#include "gateway/originpolicy.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QStandardPaths>
#include <QUrl>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace BrowserPolicy {

namespace {

QString systemError() {
    return QString::fromLocal8Bit(std::strerror(errno));
}

// Creates the folders of `path` that are missing, each 0755 whatever the umask: the browser
// runs as the cashier, not as root, and must be able to read what is in them. Folders that
// exist are left as they are.
bool makeFolders(const QString &path, QString *reason) {
    const QStringList parts = path.split(u'/', Qt::SkipEmptyParts);
    QString at;
    for (const QString &part : parts) {
        at += u'/' + part;
        const QByteArray name = QFile::encodeName(at);
        struct stat status {};
        if (::stat(name.constData(), &status) == 0) {
            if (!S_ISDIR(status.st_mode)) {
                *reason = QStringLiteral("%1 is not a folder").arg(at);
                return false;
            }
            continue;
        }
        if (::mkdir(name.constData(), 0755) != 0 && errno != EEXIST) {
            *reason = QStringLiteral("cannot create %1: %2").arg(at, systemError());
            return false;
        }
        if (::chmod(name.constData(), 0755) != 0) {
            *reason = QStringLiteral("cannot make %1 readable: %2").arg(at, systemError());
            return false;
        }
    }
    return true;
}

QString fileError(const QFileDevice &file) {
    // Qt's text for an error from the system is the system's own ("Permission denied").
    return file.errorString().isEmpty() ? QStringLiteral("unknown error") : file.errorString();
}

bool writeFile(const QString &path, const QByteArray &bytes, QString *reason) {
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        *reason = fileError(file);
        return false;
    }
    // The temporary file is created private; the policy must be readable by every user.
    if (::fchmod(file.handle(), 0644) != 0) {
        *reason = systemError();
        file.cancelWriting();
        return false;
    }
    if (file.write(bytes) != bytes.size()) {
        *reason = fileError(file);
        file.cancelWriting();
        return false;
    }
    if (!file.commit()) {
        *reason = fileError(file);
        return false;
    }
    return true;
}

} // namespace

QList<Browser> browsers(const QString &root) {
    return {{QStringLiteral("Chromium"), root + QStringLiteral("/etc/chromium/policies/managed")},
            {QStringLiteral("Google Chrome"), root + QStringLiteral("/etc/opt/chrome/policies/managed")},
            {QStringLiteral("Microsoft Edge"), root + QStringLiteral("/etc/opt/edge/policies/managed")},
            {QStringLiteral("Brave"), root + QStringLiteral("/etc/brave/policies/managed")}};
}

QString rootFromEnvironment() {
    return qEnvironmentVariable(rootVariable);
}

QList<Outcome> write(const QStringList &origins, const QString &root) {
    const QByteArray json =
        QJsonDocument(QJsonObject{{policyKey, QJsonArray::fromStringList(origins)}}).toJson();
    QList<Outcome> outcomes;
    for (const Browser &browser : browsers(root)) {
        QString reason;
        if (makeFolders(browser.folder, &reason) && writeFile(browser.file(), json, &reason))
            outcomes.append({true, QStringLiteral("%1: wrote %2 (%3: %4)")
                                       .arg(browser.name, browser.file(), policyKey,
                                            origins.join(QStringLiteral(", ")))});
        else
            outcomes.append(
                {false, QStringLiteral("%1: cannot write %2: %3").arg(browser.name, browser.file(), reason)});
    }
    return outcomes;
}

QList<Outcome> remove(const QString &root) {
    QList<Outcome> outcomes;
    for (const Browser &browser : browsers(root)) {
        QFile file(browser.file());
        if (!QFileInfo(browser.file()).isFile() && !QFileInfo(browser.file()).isSymLink())
            outcomes.append({true, QStringLiteral("%1: no policy at %2").arg(browser.name, browser.file())});
        else if (file.remove())
            outcomes.append({true, QStringLiteral("%1: removed %2").arg(browser.name, browser.file())});
        else
            outcomes.append({false, QStringLiteral("%1: cannot remove %2: %3")
                                        .arg(browser.name, browser.file(), fileError(file))});
    }
    return outcomes;
}

QStringList originsFromSettings() {
    QStringList origins;
    for (const QString &origin : OriginPolicy::allowedOrigins())
        if (origin != QLatin1String("null") && !origins.contains(origin))
            origins << origin;
    return origins;
}

bool isLocalOrigin(const QString &origin) {
    if (origin == QLatin1String("null"))
        return true;
    const QString host = QUrl(origin).host().toLower();
    if (host == QLatin1String("localhost") || host.endsWith(QLatin1String(".localhost")))
        return true;
    const QHostAddress address(host);
    return !address.isNull() && address.isLoopback();
}

QString shellQuoted(const QString &text) {
    static const QString plain =
        QStringLiteral("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./:@%+=,");
    bool safe = !text.isEmpty();
    for (const QChar c : text)
        safe = safe && plain.contains(c);
    if (safe)
        return text;
    QString quoted = text;
    quoted.replace(u'\'', QStringLiteral("'\\''"));
    return u'\'' + quoted + u'\'';
}

QString programPath() {
    // The link's target as the kernel gives it: resolving it further would need to look
    // into the folders on the way, which a user who may run the program cannot always do.
    const QString target = QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget();
    return target.isEmpty() ? QCoreApplication::applicationFilePath() : target;
}

QString sudoCommand(const QString &program, const QStringList &arguments) {
    QStringList words{QStringLiteral("sudo"), shellQuoted(program)};
    for (const QString &argument : arguments)
        words << shellQuoted(argument);
    return words.join(u' ');
}

QString commandFor(const QStringList &origins) {
    // The name alone when a terminal finds this very program by it; else where it is.
    QString program = QStringLiteral("teranocounter");
    const QString running = programPath();
    if (QFileInfo(running).fileName() == program) {
        const QString found = QStandardPaths::findExecutable(program);
        if (found.isEmpty() || QFileInfo(found).canonicalFilePath() != running)
            program = running;
    }
    return sudoCommand(program, QStringList{QStringLiteral("--browser-policy")} + origins);
}

} // namespace BrowserPolicy
