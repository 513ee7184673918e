#include "lockdown.h"

#include "gateway/originpolicy.h"
#include "gateway/websocketviewcontroller.h"
#include "kitchen/kitchenretryqueue.h"
#include "terminal_tcp/answerpeers.h"

#include <QNetworkInterface>

namespace LockDown {

QStringList localNetworks() {
    QStringList networks;
    for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces()) {
        const QNetworkInterface::InterfaceFlags flags = interface.flags();
        if (!flags.testFlag(QNetworkInterface::IsUp) || !flags.testFlag(QNetworkInterface::IsRunning) ||
            flags.testFlag(QNetworkInterface::IsLoopBack))
            continue;
        for (const QNetworkAddressEntry &entry : interface.addressEntries()) {
            if (entry.ip().protocol() != QAbstractSocket::IPv4Protocol || entry.prefixLength() < 0)
                continue;
            const quint32 mask = entry.prefixLength() == 0 ? 0 : ~quint32(0) << (32 - entry.prefixLength());
            const QString network = QStringLiteral("%1/%2")
                                        .arg(QHostAddress(entry.ip().toIPv4Address() & mask).toString())
                                        .arg(entry.prefixLength());
            if (!networks.contains(network))
                networks << network;
        }
    }
    return networks;
}

QList<Setting> plan(const QStringList &networks) {
    using Key = Settings::Key;
    const Settings &settings = Settings::shared();
    QList<Setting> plan;
    if (OriginPolicy::allowedOrigins().isEmpty())
        plan.append({Key::WebSocketPinFirstOrigin, QStringLiteral("true")});
    plan.append({Key::TerminalAnswerPeers, AnswerPeers::terminalWord});
    if (!settings.hasEntries(Key::KitchenAllowedPrinters) && !networks.isEmpty())
        plan.append({Key::KitchenAllowedPrinters, networks.join(u',')});
    plan.append({Key::HoldUndeliveredAnswers, QStringLiteral("true")});
    if (!settings.value(Key::KitchenRetryMinutes))
        plan.append({Key::KitchenRetryMinutes, QStringLiteral("10")});
    return plan;
}

QList<Setting> apply() {
    const QList<Setting> settings = plan(localNetworks());
    QList<QPair<Settings::Key, QVariant>> values;
    for (const Setting &setting : settings)
        values.append({setting.key, setting.value});
    Settings::shared().set(values);
    return settings;
}

QStringList missing() {
    using Key = Settings::Key;
    const Settings &settings = Settings::shared();
    QList<Key> off;
    if (OriginPolicy::allowedOrigins().isEmpty() && !OriginPolicy::pinFirstOrigin())
        off << Key::WebSocketAllowedOrigins;
    if (!settings.hasEntries(Key::TerminalAnswerPeers))
        off << Key::TerminalAnswerPeers;
    if (!settings.hasEntries(Key::KitchenAllowedPrinters))
        off << Key::KitchenAllowedPrinters;
    if (!WebSocketViewController::holdUndeliveredAnswers())
        off << Key::HoldUndeliveredAnswers;
    if (!KitchenRetryQueue::retryMinutes())
        off << Key::KitchenRetryMinutes;
    QStringList names;
    for (const Key key : off)
        names << Settings::name(key);
    return names;
}

bool covers(Settings::Key key) {
    using Key = Settings::Key;
    switch (key) {
    case Key::WebSocketAllowedOrigins:
    case Key::WebSocketPinFirstOrigin:
    case Key::TerminalAnswerPeers:
    case Key::KitchenAllowedPrinters:
    case Key::HoldUndeliveredAnswers:
    case Key::KitchenRetryMinutes:
        return true;
    default:
        return false;
    }
}

} // namespace LockDown
