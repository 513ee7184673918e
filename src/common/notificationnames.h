#pragma once

#include <QString>

// The in-process bus's names. Routing posts the two control names, the terminal channels
// post responses for the POS, and the settings pages close the popover.
namespace NotificationName {
inline const QString TCPcontrol = QStringLiteral("TCPcontrol");
inline const QString USBcontrol = QStringLiteral("USBcontrol");
inline const QString WEBSOCKET = QStringLiteral("WEBSOCKET");
inline const QString appDelegateNoti = QStringLiteral("appDelegateNoti");
} // namespace NotificationName
