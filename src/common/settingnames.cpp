// The names of the settings file's keys, apart from the rest of Settings so that code
// built without Qt's meta-object compiler (the fuzzers) can name a key too.
#include "settings.h"

#include <array>

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

} // namespace

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
