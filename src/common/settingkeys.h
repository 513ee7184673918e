#pragma once

#include <QString>

// Every key of the settings file, in one place: the file is the service's contract with the
// shop owner, `teranocounter --set` and the README, so a key is spelled once and every reader
// and writer names it from here.
namespace SettingKey {
// The terminal interface requests go to: "TCP" or "USB".
inline const QString mainInterface = QStringLiteral("MAIN_INTERFACE");
// The TCP terminal: its vendor and its IPv4 address.
inline const QString tcpDevice = QStringLiteral("TCP_DEVICE");
inline const QString tcpIp = QStringLiteral("TCP_IP");
// The USB terminal: its port, line rate and model.
inline const QString usbPort = QStringLiteral("USB_PORT");
inline const QString baudRate = QStringLiteral("BAUD_RATE");
inline const QString serialDeviceType = QStringLiteral("SERIAL_DEVICE_TYPE");
// Who may reach the gateway, and where it listens.
inline const QString websocketAllowedOrigins = QStringLiteral("WEBSOCKET_ALLOWED_ORIGINS");
inline const QString websocketPinFirstOrigin = QStringLiteral("WEBSOCKET_PIN_FIRST_ORIGIN");
inline const QString websocketListenAll = QStringLiteral("WEBSOCKET_LISTEN_ALL");
// Answers kept for a POS that was not there, and kitchen orders kept for a printer that was not.
inline const QString holdUndeliveredAnswers = QStringLiteral("HOLD_UNDELIVERED_ANSWERS");
inline const QString kitchenRetryMinutes = QStringLiteral("KITCHEN_RETRY_MINUTES");
// Which printers and which answering hosts are let in.
inline const QString kitchenAllowedPrinters = QStringLiteral("KITCHEN_ALLOWED_PRINTERS");
inline const QString terminalAnswerPeers = QStringLiteral("TERMINAL_ANSWER_PEERS");
} // namespace SettingKey
