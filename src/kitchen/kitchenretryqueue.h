#pragma once

#include "store/pendingstore.h"

#include <QObject>
#include <QString>
#include <map>
#include <memory>
#include <optional>

class QTimer;

// Kitchen orders kept until their printer takes them, when KITCHEN_RETRY_MINUTES is set
// (1 to 1440). Every order is written to the pending store before its first attempt and
// removed once the printer has it, so a crash or a SIGKILL loses nothing. An order whose
// printer cannot be reached is tried again after 1 s, 2 s, 4 s and so on, at most 30 s
// apart, until it is delivered or the minutes have passed since it arrived. Orders for the
// same printer go out in the order they came: a later one waits behind an earlier one.
class KitchenRetryQueue : public QObject {
public:
    static constexpr int firstRetryMs = 1000;
    static constexpr int longestRetryMs = 30'000;
    static constexpr int maximumMinutes = 1440;

    static KitchenRetryQueue &instance();

    // The setting as it stands: the minutes to keep trying, or nothing when it is unset,
    // 0 or not a whole number from 1 to 1440.
    static std::optional<int> retryMinutes();

    // At start: names an invalid setting in one line, and sends again what an earlier run
    // kept (the first attempt at once).
    void resumeAtStart();

    // Keeps the order and sends it when its turn comes; one the file will not take is sent
    // and retried all the same, from memory. False when orders are not kept (setting off, or
    // no store): the caller sends it once, as without this queue.
    bool enqueue(const QString &address, quint16 port, const QByteArray &payload);

private:
    struct Printer {
        QString address;
        quint16 port = 0;
        QList<PendingStore::Order> queue;
        bool busy = false;
        int nextRetryMs = firstRetryMs;
        QTimer *timer = nullptr;
    };

    Printer &printerFor(const QString &address, quint16 port);
    void sendNext(Printer &printer);
    void delivered(Printer &printer, bool ok);

    std::map<QString, std::unique_ptr<Printer>> printers;
    int minutes = 0;
};
