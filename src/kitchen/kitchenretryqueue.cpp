#include "kitchenretryqueue.h"

#include "common/log.h"
#include "common/settings.h"
#include "common/textform.h"
#include "printerallowlist.h"
#include "printjob.h"

#include <QTimer>
#include <algorithm>

namespace {

enum class SettingState { Off, On, Invalid };

SettingState readSetting(int *minutes, QString *raw) {
    const std::optional<QString> value = Settings::shared().text(Settings::Key::KitchenRetryMinutes);
    if (!value)
        return SettingState::Off;
    *raw = *value;
    const std::optional<qint32> parsed = parseInt32(raw->trimmed());
    if (!parsed || *parsed < 0 || *parsed > KitchenRetryQueue::maximumMinutes)
        return SettingState::Invalid;
    if (*parsed == 0)
        return SettingState::Off;
    *minutes = *parsed;
    return SettingState::On;
}

QString printerKey(const QString &address, quint16 port) {
    return address + u'\n' + QString::number(port);
}

} // namespace

KitchenRetryQueue &KitchenRetryQueue::instance() {
    static KitchenRetryQueue queue;
    return queue;
}

std::optional<int> KitchenRetryQueue::retryMinutes() {
    int minutes = 0;
    QString raw;
    if (readSetting(&minutes, &raw) != SettingState::On)
        return std::nullopt;
    return minutes;
}

void KitchenRetryQueue::resumeAtStart() {
    int configured = 0;
    QString raw;
    const SettingState state = readSetting(&configured, &raw);
    if (state == SettingState::Invalid)
        logLine(
            singleLine(QStringLiteral("%1=%2 is not a whole number of minutes from 1 to %3: kitchen orders "
                                      "are not retried")
                           .arg(Settings::name(Settings::Key::KitchenRetryMinutes), raw)
                           .arg(maximumMinutes)));
    if (state != SettingState::On)
        return;
    minutes = configured;
    PendingStore *store = PendingStore::shared();
    if (!store)
        return;
    for (const PendingStore::Order &order : store->orders())
        printerFor(order.address, order.port).queue.append(order);
    for (auto &[key, printer] : printers)
        if (!printer->queue.isEmpty())
            sendNext(*printer);
}

bool KitchenRetryQueue::enqueue(const QString &address, quint16 port, const QByteArray &payload) {
    const std::optional<int> configured = retryMinutes();
    if (!configured)
        return false;
    PendingStore *store = PendingStore::shared();
    if (!store)
        return false;
    minutes = *configured;
    PendingStore::Order order{0, PendingStore::nowMs(), address, port, payload};
    order.id = store->addOrder(address, port, payload, order.arrivedAtMs);
    // Not on disk (a full disk, say), it still goes out as any other, retried the same way:
    // only a crash or a restart before it is printed loses it.
    if (order.id == 0)
        logLine(singleLine(QStringLiteral("kitchen printer %1:%2: the order could not be kept (%3); it is "
                                          "tried all the same, but lost if the service stops first")
                               .arg(address)
                               .arg(port)
                               .arg(store->errorString())));
    Printer &printer = printerFor(address, port);
    printer.queue.append(order);
    if (!printer.busy && !printer.timer->isActive())
        sendNext(printer);
    return true;
}

KitchenRetryQueue::Printer &KitchenRetryQueue::printerFor(const QString &address, quint16 port) {
    std::unique_ptr<Printer> &slot = printers[printerKey(address, port)];
    if (!slot) {
        slot = std::make_unique<Printer>();
        slot->address = address;
        slot->port = port;
        slot->timer = new QTimer(this);
        slot->timer->setSingleShot(true);
        Printer *printer = slot.get();
        connect(slot->timer, &QTimer::timeout, this, [this, printer] { sendNext(*printer); });
    }
    return *slot;
}

void KitchenRetryQueue::sendNext(Printer &printer) {
    PendingStore *store = PendingStore::shared();
    const qint64 keepMs = qint64(minutes) * 60'000;
    while (!printer.queue.isEmpty()) {
        const PendingStore::Order &head = printer.queue.first();
        const qint64 age = PendingStore::nowMs() - head.arrivedAtMs;
        if (age < keepMs)
            break;
        logLine(
            singleLine(QStringLiteral("kitchen printer %1:%2: order given up after %3, the printer could not "
                                      "be reached")
                           .arg(printer.address)
                           .arg(printer.port)
                           .arg(describeAge(age))));
        if (store && head.id)
            store->removeOrder(head.id);
        printer.queue.removeFirst();
        printer.nextRetryMs = firstRetryMs;
    }
    // Orders kept by an earlier run, or before the printer left KITCHEN_ALLOWED_PRINTERS, go
    // only where the list allows now.
    while (!printer.queue.isEmpty() && !PrinterAllowList::permits(printer.address, printer.port)) {
        if (store && printer.queue.first().id)
            store->removeOrder(printer.queue.first().id);
        printer.queue.removeFirst();
        printer.nextRetryMs = firstRetryMs;
    }
    if (printer.queue.isEmpty())
        return;
    printer.busy = true;
    const PendingStore::Order &head = printer.queue.first();
    auto *job = new PrintJob(printer.address, printer.port, head.payload,
                             [this, &printer](bool ok) { delivered(printer, ok); });
    job->start();
}

void KitchenRetryQueue::delivered(Printer &printer, bool ok) {
    printer.busy = false;
    if (ok) {
        // A removal the file refuses is remembered by the store: the order is not sent again.
        PendingStore *store = PendingStore::shared();
        if (store && printer.queue.first().id)
            store->removeOrder(printer.queue.first().id);
        printer.queue.removeFirst();
        printer.nextRetryMs = firstRetryMs;
        if (!printer.queue.isEmpty())
            sendNext(printer);
        return;
    }
    // Not before the next step of the back-off, and not after the head order's time is up:
    // an order that will not be delivered is given up when its minutes have passed.
    const qint64 keepMs = qint64(minutes) * 60'000;
    const qint64 untilGivenUp = printer.queue.first().arrivedAtMs + keepMs - PendingStore::nowMs();
    const qint64 wait = std::clamp<qint64>(untilGivenUp, 0, printer.nextRetryMs);
    printer.nextRetryMs = std::min(printer.nextRetryMs * 2, longestRetryMs);
    printer.timer->start(static_cast<int>(wait));
}
