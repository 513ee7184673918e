#pragma once

#include <QString>
#include <QStringList>
#include <optional>

// The session's login items, as XDG autostart keeps them: every *.desktop entry in
// $XDG_CONFIG_HOME/autostart, then in the autostart folder of each of $XDG_CONFIG_DIRS
// (by default /etc/xdg), in that order and by name within a folder. Registering adds
// $XDG_CONFIG_HOME/autostart/teranocounter.desktop, which starts this executable.
class LoginItems {
public:
    // The application an item starts: the program named by its Exec line, resolved to
    // a canonical path, or nothing when that program does not exist (an item left behind
    // by an uninstalled program), which never matches.
    static std::optional<QString> resolvedTarget(const QString &desktopFile);

    struct Found {
        std::optional<QString> item; // the entry that starts this application
        QString last;                // the list's last entry
    };

    explicit LoginItems(QString applicationPath);

    QStringList list() const;
    // The entry that starts this application, and the list's last entry. A list with no
    // entry at all is a fatal stop: the service expects a session that starts programs.
    Found findLoginItem() const;
    // Adds this application once: prints "Add login item" and writes the entry the first
    // time; finds it and does nothing on every later launch.
    void addToLoginItems() const;

    static QString userAutostartFolder();

private:
    QString applicationPath;
};
