#include "kitchenprintservice.h"

#include "common/cp949.h"
#include "common/fatal.h"
#include "common/log.h"
#include "common/textform.h"
#include "kitchenretryqueue.h"
#include "printerallowlist.h"
#include "printjob.h"

#include <QTimer>

void KitchenPrintService::printKitchenOrder(const QVariantMap &request) const {
    const QVariant data = request.value(QStringLiteral("data"));
    if (data.typeId() != QMetaType::QByteArray)
        fatalStop(QStringLiteral("kitchen order has no \"data\" bytes"));

    std::optional<QByteArray> payload;
    if (const std::optional<QString> text = strictUtf8(data.toByteArray()))
        payload = cp949::encode(*text);

    const QVariant ip = request.value(QStringLiteral("ip"));
    if (ip.typeId() != QMetaType::QString)
        fatalStop(QStringLiteral("kitchen order has no printer address (\"ip\" must be a string)"));

    if (!request.contains(QStringLiteral("port")))
        fatalStop(QStringLiteral("kitchen order has no printer \"port\""));
    const QString portText = textualForm(request.value(QStringLiteral("port")));

    const QString address = ip.toString();
    QTimer::singleShot(0, [address, portText, payload] { deliverToPrinter(address, portText, payload); });
}

void KitchenPrintService::deliverToPrinter(const QString &address, const QString &portText,
                                           const std::optional<QByteArray> &payload) {
    const std::optional<qint32> port = parseInt32(portText);
    if (!port)
        fatalStop(
            QStringLiteral("kitchen printer port \"%1\" is not a decimal 32-bit integer").arg(portText));
    if (*port < 0 || *port > 65535) {
        logLine(
            singleLine(QStringLiteral("kitchen printer %1:%2: port out of range").arg(address).arg(*port)));
        return;
    }
    // Before anything is kept or a connection is tried: a destination the shop has not
    // listed gets nothing, not even a connection attempt.
    if (!PrinterAllowList::permits(address, static_cast<quint16>(*port)))
        return;
    // A shop that keeps undelivered orders gets them retried until the printer is back;
    // text that cannot be printed is never kept, and stops the service as it always has.
    if (payload && KitchenRetryQueue::instance().enqueue(address, static_cast<quint16>(*port), *payload))
        return;
    auto *job = new PrintJob(address, static_cast<quint16>(*port), payload);
    job->start();
}
