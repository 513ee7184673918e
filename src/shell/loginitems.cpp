#include "loginitems.h"

#include "common/fatal.h"
#include "common/log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

namespace {

QStringList configDirs() {
    const QString dirs = qEnvironmentVariable("XDG_CONFIG_DIRS");
    QStringList folders;
    for (const QString &dir : dirs.split(u':', Qt::SkipEmptyParts))
        if (QDir::isAbsolutePath(dir))
            folders << dir;
    if (folders.isEmpty())
        folders << QStringLiteral("/etc/xdg");
    return folders;
}

QString configHome() {
    const QString home = qEnvironmentVariable("XDG_CONFIG_HOME");
    return QDir::isAbsolutePath(home) ? home : QDir::homePath() + QStringLiteral("/.config");
}

// A desktop entry string value with its escapes (\\, \s, \t, \n, \r) undone.
QString unescapedValue(const QString &value) {
    QString text;
    for (qsizetype i = 0; i < value.size(); ++i) {
        if (value[i] != u'\\' || i + 1 == value.size()) {
            text += value[i];
            continue;
        }
        const QChar next = value[++i];
        text += next == u's'   ? QChar(u' ')
                : next == u't' ? QChar(u'\t')
                : next == u'n' ? QChar(u'\n')
                : next == u'r' ? QChar(u'\r')
                               : next;
    }
    return text;
}

// The first word of an Exec value, with the desktop entry quoting undone.
QString programOf(const QString &value) {
    const QString exec = unescapedValue(value);
    QString program;
    bool quoted = false;
    for (qsizetype i = 0; i < exec.size(); ++i) {
        const QChar c = exec[i];
        if (c == u'"') {
            quoted = !quoted;
        } else if (c == u'\\' && quoted && i + 1 < exec.size()) {
            program += exec[++i];
        } else if (c.isSpace() && !quoted) {
            if (!program.isEmpty())
                break;
        } else {
            program += c;
        }
    }
    return program;
}

QString desktopEntryQuoted(const QString &path) {
    QString escaped = path;
    escaped.replace(u'\\', QStringLiteral("\\\\\\\\"))
        .replace(u'"', QStringLiteral("\\\\\""))
        .replace(u'`', QStringLiteral("\\\\`"))
        .replace(u'$', QStringLiteral("\\\\$"));
    return u'"' + escaped + u'"';
}

} // namespace

LoginItems::LoginItems(QString applicationPath) : applicationPath(std::move(applicationPath)) {}

QString LoginItems::userAutostartFolder() {
    return configHome() + QStringLiteral("/autostart");
}

QStringList LoginItems::list() const {
    QStringList folders{userAutostartFolder()};
    for (const QString &dir : configDirs())
        folders << dir + QStringLiteral("/autostart");
    QStringList items;
    for (const QString &folder : folders) {
        const QDir dir(folder);
        for (const QString &name : dir.entryList({QStringLiteral("*.desktop")}, QDir::Files, QDir::Name))
            items << dir.filePath(name);
    }
    return items;
}

std::optional<QString> LoginItems::resolvedTarget(const QString &desktopFile) {
    QFile file(desktopFile);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    bool inEntry = false;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (line.startsWith(u'[')) {
            inEntry = line == QLatin1String("[Desktop Entry]");
            continue;
        }
        if (!inEntry || !line.startsWith(QLatin1String("Exec")))
            continue;
        const qsizetype equals = line.indexOf(u'=');
        if (equals < 0 || line.left(equals).trimmed() != QLatin1String("Exec"))
            continue;
        QString program = programOf(line.mid(equals + 1).trimmed());
        if (!program.contains(u'/'))
            program = QStandardPaths::findExecutable(program);
        const QString canonical = QFileInfo(program).canonicalFilePath();
        if (canonical.isEmpty())
            return std::nullopt;
        return canonical;
    }
    return std::nullopt;
}

LoginItems::Found LoginItems::findLoginItem() const {
    const QString application = QFileInfo(applicationPath).canonicalFilePath();
    const QStringList items = list();
    if (items.isEmpty())
        fatalStop(QStringLiteral("the session has no login items at all (no *.desktop entry in %1 or the "
                                 "autostart folders of XDG_CONFIG_DIRS)")
                      .arg(userAutostartFolder()));
    Found found{std::nullopt, items.last()};
    for (const QString &item : items) {
        const std::optional<QString> target = resolvedTarget(item);
        if (target && *target == application) {
            found.item = item;
            break;
        }
    }
    return found;
}

void LoginItems::addToLoginItems() const {
    const Found found = findLoginItem();
    if (found.item)
        return;
    logLine(QStringLiteral("Add login item"));
    QDir().mkpath(userAutostartFolder());
    QSaveFile entry(userAutostartFolder() + QStringLiteral("/teranocounter.desktop"));
    if (!entry.open(QIODevice::WriteOnly))
        return; // an autostart folder that cannot be written: not detected, as before
    const QString canonical = QFileInfo(applicationPath).canonicalFilePath();
    entry.write(QStringLiteral("[Desktop Entry]\n"
                               "Type=Application\n"
                               "Name=Terano Counter\n"
                               "Name[ko]=테라노카운터\n"
                               "Comment=POS card terminal and kitchen printer service\n"
                               "Exec=%1\n"
                               "Icon=teranocounter\n"
                               "Terminal=false\n"
                               "X-GNOME-Autostart-enabled=true\n")
                    .arg(desktopEntryQuoted(canonical))
                    .toUtf8());
    entry.commit();
}
