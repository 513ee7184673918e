#include "userdefaults.h"

#include <QSettings>
#include <memory>

namespace {

// A QSettings object is not meant to be shared between threads, so each use makes its
// own; Qt shares the parsed file between them and sync() re-reads it when it changed.
std::unique_ptr<QSettings> open() {
    auto settings =
        std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                    QStringLiteral("teranocounter"), QStringLiteral("teranocounter"));
    settings->sync();
    return settings;
}

} // namespace

UserDefaults &UserDefaults::standard() {
    static UserDefaults defaults;
    return defaults;
}

std::optional<QVariant> UserDefaults::value(const QString &key) const {
    const auto settings = open();
    if (!settings->contains(key))
        return std::nullopt;
    return settings->value(key);
}

std::optional<QString> UserDefaults::string(const QString &key) const {
    const std::optional<QVariant> v = value(key);
    if (!v)
        return std::nullopt;
    return v->toString();
}

void UserDefaults::setValue(const QString &key, const QVariant &value) {
    const auto settings = open();
    settings->setValue(key, value);
    settings->sync();
}

void UserDefaults::remove(const QString &key) {
    const auto settings = open();
    settings->remove(key);
    settings->sync();
}

QStringList UserDefaults::keys() const {
    return open()->allKeys();
}

QString UserDefaults::fileName() const {
    return open()->fileName();
}
