#pragma once

#include "devsim/printer.h"
#include "posclient.h"
#include "serviceprocess.h"

// The usual start of a system test: the real service running in its own HOME, and one
// POS page connected to its gateway.
inline bool startAndConnect(ServiceProcess &service, PosClient &pos) {
    return service.start() && pos.open(ServiceProcess::gatewayPort);
}

// A probe for "nothing else happened": a kitchen order sent on `pos` after the frames under
// test, to a printer of its own. The service reads a page's frames in order and prints a
// frame's marker before anything else of it, so once the printer has the order, whatever
// the earlier frames made the service print while they were read is on its standard output,
// ahead of the probe's own marker (ServiceProcess::stdoutLinesWrittenByNow reads it all).
// What a frame starts and prints later (a printer's refusal, a terminal's answer) may come
// after the probe: for that, only time tells.
inline bool probeKitchenOrder(PosClient &pos) {
    devsim::Printer printer;
    if (!printer.listen())
        return false;
    const QByteArray order("PROBE\n");
    pos.send(kitchenOrderFrame(QString::fromLatin1(order), printer.port()));
    return waitUntil(
        [&] { return !printer.connections().isEmpty() && printer.connections().first().received == order; },
        5000);
}

// How a fault test ends: the service is still running, has said nothing on standard error,
// and a POS page that connects now gets its kitchen order printed. Returns what went wrong,
// or nothing.
inline QString notServingNextOrder(ServiceProcess &service) {
    if (!service.isRunning())
        return QStringLiteral("the service is not running (exit code %1; standard error: %2)")
            .arg(service.exitCode())
            .arg(service.stderrLines().join(u'|'));
    if (!service.stderrLines().isEmpty())
        return QStringLiteral("standard error: ") + service.stderrLines().join(u'|');
    devsim::Printer printer;
    if (!printer.listen())
        return QStringLiteral("no port for the printer");
    PosClient pos;
    if (!pos.open(ServiceProcess::gatewayPort))
        return QStringLiteral("a new POS page could not connect");
    const QByteArray order("NEXT ORDER 1\n");
    pos.send(kitchenOrderFrame(QString::fromLatin1(order), printer.port()));
    if (!waitUntil(
            [&] {
                return !printer.connections().isEmpty() && printer.connections().first().received == order;
            },
            10000))
        return QStringLiteral("the next kitchen order did not reach its printer");
    if (!service.isRunning())
        return QStringLiteral("the service stopped after the next order");
    return {};
}

#define VERIFY_SERVES_NEXT_ORDER(service)                                                                    \
    do {                                                                                                     \
        const QString why = notServingNextOrder(service);                                                    \
        QVERIFY2(why.isEmpty(), qPrintable(why));                                                            \
    } while (false)
