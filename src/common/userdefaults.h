#pragma once

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>
#include <memory>
#include <optional>

// The user's settings, in $XDG_CONFIG_HOME/teranocounter/teranocounter.conf. Every read
// goes to the file afresh (so `teranocounter --set` from another process is seen on the
// next request) and every write is synced at once, so a crash or a fatal stop loses
// nothing. Safe to use from any thread.
class UserDefaults {
public:
    static UserDefaults &standard();
    UserDefaults();
    ~UserDefaults();

    std::optional<QVariant> value(const QString &key) const;
    std::optional<QString> string(const QString &key) const;
    // A comma-separated setting as its entries, each trimmed, blanks left out; nothing when
    // unset. A hand-edited INI file turns an unquoted comma list into a string list, which
    // reads the same.
    std::optional<QStringList> list(const QString &key) const;
    void setValue(const QString &key, const QVariant &value);
    // Several at once: the file is written once, with all of them or (on failure) none.
    void setValues(const QList<QPair<QString, QVariant>> &values);
    void remove(const QString &key);
    QStringList keys() const;
    QString fileName() const;

private:
    struct Cache;
    QVariantMap snapshot() const;
    void forget();
    std::unique_ptr<Cache> cache;
};
