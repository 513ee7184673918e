#pragma once

#include <QString>

// Turns one POS text frame into one action: a kitchen print, a request for the TCP or the
// USB terminal channel (posted on the bus, handled before this returns), or nothing.
// Prints "RECV FIRED!!!:" first for every frame. A frame that cannot be read, and a
// terminal request while no interface has been chosen, stop the service.
void handleRequest(const QString &text);
