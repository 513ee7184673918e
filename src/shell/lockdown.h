#pragma once

#include "common/settings.h"

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

// The protections we recommend for a shop, turned on in one go: from the command line
// (`teranocounter --lock-down`) or the gateway page's button. Each is a setting that is off
// by default so that an install behaves as documented until the owner chooses.
namespace LockDown {

struct Setting {
    Settings::Key key;
    QString value;
    // As the command line and the log show it: KEY=value.
    QString text() const { return Settings::name(key) + u'=' + value; }
};

// This computer's IPv4 networks on interfaces that are up, running and not loopback, as CIDR
// ranges (`192.168.0.0/24`): where its kitchen printers are.
QStringList localNetworks();

// What turning the protections on writes, given the settings as they stand and the
// networks the printers may be on:
//  - WEBSOCKET_PIN_FIRST_ORIGIN=true, unless origins are listed already;
//  - TERMINAL_ANSWER_PEERS=TCP_IP;
//  - KITCHEN_ALLOWED_PRINTERS=<networks>, unless set (or no network is up);
//  - HOLD_UNDELIVERED_ANSWERS=true;
//  - KITCHEN_RETRY_MINUTES=10, unless set.
QList<Setting> plan(const QStringList &networks);

// Writes the plan in one go and returns what it wrote.
QList<Setting> apply();

// The protections that are off now, by their setting's name; empty when all are on.
QStringList missing();
// Whether `key` is one of the settings missing() looks at.
bool covers(Settings::Key key);

} // namespace LockDown
