#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QVariantMap>
#include <optional>

// Sends kitchen orders to network receipt printers. Fire and forget: the order text is
// converted to code page 949, written on a short TCP connection of its own, and the
// connection is closed; the POS gets no answer and nothing is kept between orders.
// Every network wait happens on the event loop, never on the caller's path, so a slow or
// dead printer cannot hold up the POS.
class KitchenPrintService {
public:
    static constexpr int connectTimeoutMs = 1000;
    static constexpr int readTimeoutMs = 1000;
    // A printer that stops taking the order's bytes for this long has failed the job.
    static constexpr int sendStallTimeoutMs = 10'000;
    static constexpr qint64 readLimit = 10240;

    // Takes the internal request dictionary ("data" bytes, "ip" text, "port" any value).
    // Checks it, prepares the payload and queues the delivery, then returns.
    void printKitchenOrder(const QVariantMap &request) const;

    // The queued delivery: parses the port, sends nothing to a destination that
    // KITCHEN_ALLOWED_PRINTERS leaves out, connects (1 s), sends the whole payload once,
    // waits up to 1 s for anything the printer says and discards it, then closes.
    static void deliverToPrinter(const QString &address, const QString &portText,
                                 const std::optional<QByteArray> &payload);
};
