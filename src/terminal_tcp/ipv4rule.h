#pragma once

#include <QString>

// A terminal address is usable only as plain dotted decimal IPv4 with no leading zeros
// (192.168.0.7, not 192.168.000.7 or a host name). Checked when the user types it and
// again before every connection, because the settings file can be edited by hand.
bool matchesIPv4Rule(const QString &text);
