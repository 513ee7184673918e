#include "settings.h"

#include "textform.h"
#include "userdefaults.h"

#include <array>
#include <utility>

namespace {

struct KeyInfo {
    Settings::Key key;
    const char *name;
};

// The one place the file's keys are spelled.
constexpr std::array<KeyInfo, 13> keyTable{{
    {Settings::Key::MainInterface, "MAIN_INTERFACE"},
    {Settings::Key::TcpDevice, "TCP_DEVICE"},
    {Settings::Key::TcpIp, "TCP_IP"},
    {Settings::Key::UsbPort, "USB_PORT"},
    {Settings::Key::BaudRate, "BAUD_RATE"},
    {Settings::Key::SerialDeviceType, "SERIAL_DEVICE_TYPE"},
    {Settings::Key::WebSocketAllowedOrigins, "WEBSOCKET_ALLOWED_ORIGINS"},
    {Settings::Key::WebSocketPinFirstOrigin, "WEBSOCKET_PIN_FIRST_ORIGIN"},
    {Settings::Key::WebSocketListenAll, "WEBSOCKET_LISTEN_ALL"},
    {Settings::Key::HoldUndeliveredAnswers, "HOLD_UNDELIVERED_ANSWERS"},
    {Settings::Key::KitchenRetryMinutes, "KITCHEN_RETRY_MINUTES"},
    {Settings::Key::KitchenAllowedPrinters, "KITCHEN_ALLOWED_PRINTERS"},
    {Settings::Key::TerminalAnswerPeers, "TERMINAL_ANSWER_PEERS"},
}};

const QString tcpText = QStringLiteral("TCP");
const QString usbText = QStringLiteral("USB");

} // namespace

Settings &Settings::shared() {
    static Settings settings;
    return settings;
}

QString Settings::name(Key key) {
    for (const KeyInfo &info : keyTable)
        if (info.key == key)
            return QString::fromLatin1(info.name);
    Q_UNREACHABLE();
    return QString();
}

std::optional<Settings::Key> Settings::keyNamed(const QString &name) {
    for (const KeyInfo &info : keyTable)
        if (name == QLatin1String(info.name))
            return info.key;
    return std::nullopt;
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

bool Settings::isOn(Key key) const {
    const std::optional<QString> stored = text(key);
    return stored && stored->trimmed().compare(QLatin1String("true"), Qt::CaseInsensitive) == 0;
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
