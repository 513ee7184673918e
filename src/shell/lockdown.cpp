#include "lockdown.h"

#include "common/userdefaults.h"
#include "gateway/originpolicy.h"
#include "gateway/websocketviewcontroller.h"
#include "kitchen/kitchenretryqueue.h"
#include "kitchen/printerallowlist.h"
#include "terminal_tcp/answerpeers.h"

#include <QNetworkInterface>

namespace LockDown {

namespace {

bool isSet(const QString &key) {
    const std::optional<QStringList> entries = UserDefaults::standard().list(key);
    return entries && !entries->isEmpty();
}

} // namespace

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
    QList<Setting> settings;
    if (OriginPolicy::allowedOrigins().isEmpty())
        settings.append({OriginPolicy::pinFirstKey, QStringLiteral("true")});
    settings.append({AnswerPeers::settingKey, AnswerPeers::terminalWord});
    if (!isSet(PrinterAllowList::settingKey) && !networks.isEmpty())
        settings.append({PrinterAllowList::settingKey, networks.join(u',')});
    settings.append({WebSocketViewController::holdKey, QStringLiteral("true")});
    if (!UserDefaults::standard().value(KitchenRetryQueue::settingKey))
        settings.append({KitchenRetryQueue::settingKey, QStringLiteral("10")});
    return settings;
}

QList<Setting> apply() {
    const QList<Setting> settings = plan(localNetworks());
    QList<QPair<QString, QVariant>> values;
    for (const Setting &setting : settings)
        values.append({setting.first, setting.second});
    UserDefaults::standard().setValues(values);
    return settings;
}

QStringList missing() {
    QStringList off;
    if (OriginPolicy::allowedOrigins().isEmpty() && !OriginPolicy::pinFirstOrigin())
        off << OriginPolicy::allowedKey;
    if (!isSet(AnswerPeers::settingKey))
        off << AnswerPeers::settingKey;
    if (!isSet(PrinterAllowList::settingKey))
        off << PrinterAllowList::settingKey;
    if (!WebSocketViewController::holdUndeliveredAnswers())
        off << WebSocketViewController::holdKey;
    if (!KitchenRetryQueue::retryMinutes())
        off << KitchenRetryQueue::settingKey;
    return off;
}

} // namespace LockDown
