#pragma once

#include <QStringList>

// This machine's own addresses as numeric text, in the order of the system's interface
// list: every IPv4 or IPv6 address of an interface that is up and running and is not
// loopback. Card terminals on the shop network deliver their answers to the first one.
QStringList localAddresses();
