#include "settings.h"

#include "textform.h"
#include "userdefaults.h"

namespace {

const QString tcpText = QStringLiteral("TCP");
const QString usbText = QStringLiteral("USB");

} // namespace

Settings &Settings::shared() {
    static Settings settings;
    return settings;
}

std::optional<QVariant> Settings::value(Key key) const {
    return UserDefaults::standard().value(name(key));
}

std::optional<QString> Settings::text(Key key) const {
    const std::optional<QVariant> stored = value(key);
    if (!stored)
        return std::nullopt;
    return textualForm(*stored);
}

std::optional<QStringList> Settings::list(Key key) const {
    return UserDefaults::standard().list(name(key));
}

bool Settings::hasEntries(Key key) const {
    const std::optional<QStringList> entries = list(key);
    return entries && !entries->isEmpty();
}

std::optional<QString> Settings::string(Key key) const {
    return UserDefaults::standard().string(name(key));
}

bool Settings::isOn(Key key) const {
    return isOn(value(key));
}

bool Settings::isOn(const std::optional<QVariant> &stored) {
    return stored && stored->toString().trimmed().compare(QLatin1String("true"), Qt::CaseInsensitive) == 0;
}

Settings::Interface Settings::mainInterface() const {
    return interfaceOf(value(Key::MainInterface));
}

Settings::Interface Settings::interfaceOf(const std::optional<QVariant> &stored) {
    if (!stored)
        return Interface::None;
    const QString name = textualForm(*stored);
    if (name == tcpText)
        return Interface::Tcp;
    if (name == usbText)
        return Interface::Usb;
    return Interface::Other;
}

std::optional<QVariant> Settings::defaultValue(Key key) {
    switch (key) {
    case Key::TcpDevice:
        return QVariant(QStringLiteral("KICC"));
    case Key::BaudRate:
        // An integer, not text: the serial line's default rate, as the port starts with it.
        return QVariant(9600);
    case Key::SerialDeviceType:
        return QVariant(QStringLiteral("TS-132N"));
    default:
        return std::nullopt;
    }
}

void Settings::set(Key key, const QVariant &value) {
    UserDefaults::standard().setValue(name(key), value);
    emit changed(key);
}

void Settings::set(const QList<QPair<Key, QVariant>> &values) {
    QList<QPair<QString, QVariant>> named;
    for (const auto &[key, value] : values)
        named.append({name(key), value});
    UserDefaults::standard().setValues(named);
    for (const auto &entry : values)
        emit changed(entry.first);
}

void Settings::remove(Key key) {
    UserDefaults::standard().remove(name(key));
    emit changed(key);
}

bool Settings::fillDefault(Key key) {
    const std::optional<QVariant> fallback = defaultValue(key);
    if (!fallback || value(key))
        return false;
    set(key, *fallback);
    return true;
}

void Settings::chooseInterface(Interface interface) {
    Q_ASSERT(interface == Interface::Tcp || interface == Interface::Usb);
    set(Key::MainInterface, interface == Interface::Tcp ? tcpText : usbText);
    emit interfaceChosen(interface);
}
