#pragma once

#include "common/settings.h"
#include "jsonframe.h"

#include <QString>
#include <QVariant>
#include <QVariantMap>
#include <functional>
#include <optional>
#include <variant>

class TerminalChannel;

// The terminal channels routing hands requests to. One that is missing (a gateway run on
// its own, as in its tests) takes nothing: its requests are dropped.
struct TerminalChannels {
    TerminalChannel *tcp = nullptr;
    TerminalChannel *usb = nullptr;
};

// Turns one POS text frame into one action: a kitchen print, a request for the TCP or the
// USB terminal channel (handled before this returns), or nothing. Prints "RECV FIRED!!!:"
// first for every frame. A frame that cannot be read, and a terminal request while no
// interface has been chosen, stop the service.
void handleRequest(const QString &text, const TerminalChannels &channels);

enum class RouteTarget { KitchenPrint, TcpTerminal, UsbTerminal, Drop };

// Where a request goes. Kitchen orders never look at MAIN_INTERFACE, so kitchen printing
// works whichever terminal is set, or none. `mainInterface` is asked for only when it
// matters.
std::variant<RouteTarget, RequestError> routeFor(const QVariantMap &requestObject,
                                                 const std::function<Settings::Interface()> &mainInterface);
