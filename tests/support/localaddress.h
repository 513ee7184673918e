#pragma once

#include <QHostAddress>
#include <QNetworkInterface>
#include <optional>

// An IPv4 address of this machine that is not loopback, if it has one: a service that
// listens on loopback only must refuse connections to it.
inline std::optional<QHostAddress> nonLoopbackIPv4() {
    for (const QHostAddress &address : QNetworkInterface::allAddresses())
        if (address.protocol() == QAbstractSocket::IPv4Protocol && !address.isLoopback())
            return address;
    return std::nullopt;
}
