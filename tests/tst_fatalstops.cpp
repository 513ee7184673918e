// Malformed POS requests stop the service on purpose, and only they do: each case runs
// the real executable, sends one frame and watches how the process ends.
#include "devsim/printer.h"
#include "devsim/switchedoffdevice.h"
#include "posclient.h"
#include "servicefixture.h"
#include "serviceprocess.h"
#include "wait.h"

#include <QtTest>
#include <algorithm>

namespace {
const QString &recvFired = ServiceProcess::recvFired;
} // namespace

class FatalStopsTest : public QObject {
    Q_OBJECT

    // Starts the service with the given interface setting and sends `frame` from a POS;
    // PRINTER in the frame stands for the port of `printer`.
    void startAndSend(ServiceProcess &service, PosClient &pos, devsim::Printer &printer, const QString &frame,
                      const QString &mainInterface) {
        QVERIFY(printer.listen());
        if (!mainInterface.isEmpty())
            service.set(QStringLiteral("MAIN_INTERFACE"), mainInterface);
        QVERIFY(startAndConnect(service, pos));
        pos.send(QString(frame).replace(QStringLiteral("PRINTER"), QString::number(printer.port())));
    }

    void expectStop(const QString &frame, const QString &mainInterface, const QString &reasonPart,
                    int *printerConnections = nullptr, QByteArray *printerBytes = nullptr) {
        devsim::Printer printer;
        ServiceProcess service;
        PosClient pos;
        startAndSend(service, pos, printer, frame, mainInterface);
        if (QTest::currentTestFailed())
            return;
        QVERIFY2(service.waitForExit(5000), "the service kept running");
        QCOMPARE(service.exitStatus(), QProcess::NormalExit);
        QVERIFY(service.exitCode() != 0);
        const QStringList err = service.stderrLines();
        QCOMPARE(err.size(), 1);
        QVERIFY2(err[0].startsWith(QStringLiteral("fatal: ")), qPrintable(err[0]));
        QVERIFY2(err[0].contains(reasonPart, Qt::CaseInsensitive), qPrintable(err[0]));
        QCOMPARE(service.stdoutLines().value(0), recvFired);
        QVERIFY(pos.texts.isEmpty()); // the POS is never told
        if (printerConnections)
            *printerConnections = printer.connections().size();
        if (printerBytes)
            for (const auto &c : printer.connections())
                *printerBytes += c.received;
    }

    void expectNoStop(const QString &frame, const QString &mainInterface) {
        devsim::Printer printer;
        ServiceProcess service;
        PosClient pos;
        startAndSend(service, pos, printer, frame, mainInterface);
        if (QTest::currentTestFailed())
            return;
        QVERIFY(service.waitForStdoutLine(recvFired, 3000));
        // Frames are taken in order: a kitchen job the frame started reaches the printer
        // before a first probe order does, and its connect and read waits are over once
        // every connection the printer saw, the probe's included, has been closed. A second
        // probe printed after that shows the service still at work.
        const auto printedAndAllClosed = [&](const QByteArray &order) {
            bool seen = false;
            for (const auto &c : printer.connections()) {
                if (c.closedAtMs < 0)
                    return false;
                seen = seen || c.received == order;
            }
            return seen;
        };
        pos.send(kitchenOrderFrame(QStringLiteral("PROBE 1\n"), printer.port()));
        QVERIFY2(waitUntil([&] { return printedAndAllClosed("PROBE 1\n"); }, 10000),
                 qPrintable(service.stderrLines().join(u'\n')));
        pos.send(kitchenOrderFrame(QStringLiteral("PROBE 2\n"), printer.port()));
        const auto printedAt = [&](const QByteArray &order) {
            return std::any_of(printer.connections().cbegin(), printer.connections().cend(),
                               [&](const auto &c) { return c.received == order; });
        };
        QVERIFY2(waitUntil([&] { return printedAt("PROBE 2\n"); }, 10000),
                 qPrintable(service.stderrLines().join(u'\n')));
        QVERIFY(service.isRunning());
        QCOMPARE(service.stderrLines(), QStringList());
    }

private slots:
    void init() { QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use"); }

    void malformedRequestsStop_data() {
        QTest::addColumn<QString>("frame");
        QTest::addColumn<QString>("mainInterface");
        QTest::addColumn<QString>("reason");
        QTest::newRow("raw Korean inside a string")
            << QStringLiteral(
                   R"({"requesttype":"kitchenPrint","data":[],"ip":"127.0.0.1","port":PRINTER,"memo":"김치"})")
            << ""
            << "non-ASCII";
        QTest::newRow("raw tab inside a string")
            << QStringLiteral("{\"requesttype\":\"kitchenPrint\",\"data\":[65],\"ip\":\"127.0.0.1\",\"port\":"
                              "PRINTER,\"memo\":\"a\tb\"}")
            << ""
            << "not JSON";
        QTest::newRow("number ending in a point") << R"({"requesttype":"print","data":[1.]})"
                                                  << "TCP"
                                                  << "not JSON";
        QTest::newRow("not JSON") << "PRINT PLEASE"
                                  << "TCP"
                                  << "not JSON";
        QTest::newRow("empty frame") << ""
                                     << "TCP"
                                     << "not JSON";
        QTest::newRow("top level array") << R"([{"requesttype":"print","data":[]}])"
                                         << "TCP"
                                         << "object";
        QTest::newRow("data missing") << R"({"requesttype":"print"})"
                                      << "TCP"
                                      << "data";
        QTest::newRow("data 256") << R"({"requesttype":"print","data":[1,256]})"
                                  << "TCP"
                                  << "data";
        QTest::newRow("data -1") << R"({"requesttype":"print","data":[-1]})"
                                 << "TCP"
                                 << "data";
        QTest::newRow("data a string") << R"({"requesttype":"print","data":"AB"})"
                                       << "TCP"
                                       << "data";
        QTest::newRow("requesttype missing") << R"({"data":[1]})"
                                             << "TCP"
                                             << "requesttype";
        QTest::newRow("payment with no interface set") << R"({"requesttype":"payment","data":[1]})"
                                                       << ""
                                                       << "MAIN_INTERFACE";
        // The USB channel insists on a text "requesttype", and a "msg" request must carry a
        // "msg", which is not among the five keys routing passes on from the POS.
        QTest::newRow("USB: requesttype a number") << R"({"requesttype":5,"data":[1]})"
                                                   << "USB"
                                                   << "requesttype";
        QTest::newRow("USB: requesttype null") << R"({"requesttype":null,"data":[1]})"
                                               << "USB"
                                               << "requesttype";
        QTest::newRow("USB: msg request from the POS")
            << R"({"requesttype":"msg","msg":"deselect","data":[]})"
            << "USB"
            << "msg";
        QTest::newRow("kitchen: ip missing") << R"({"requesttype":"kitchenPrint","data":[65],"port":PRINTER})"
                                             << ""
                                             << "ip";
        QTest::newRow("kitchen: ip a number")
            << R"({"requesttype":"kitchenPrint","data":[65],"ip":127,"port":PRINTER})"
            << ""
            << "ip";
        QTest::newRow("kitchen: port missing")
            << R"({"requesttype":"kitchenPrint","data":[65],"ip":"127.0.0.1"})"
            << ""
            << "port";
        QTest::newRow("kitchen: port with a decimal point")
            << R"({"requesttype":"kitchenPrint","data":[65],"ip":"127.0.0.1","port":"9100.0"})"
            << ""
            << "port";
        QTest::newRow("kitchen: port with a fraction")
            << R"({"requesttype":"kitchenPrint","data":[65],"ip":"127.0.0.1","port":9100.5})"
            << ""
            << "port";
        QTest::newRow("kitchen: port with a line break")
            << R"({"requesttype":"kitchenPrint","data":[65],"ip":"127.0.0.1","port":"91\n00"})"
            << ""
            << "port";
        QTest::newRow("kitchen: port with a leading blank")
            << R"({"requesttype":"kitchenPrint","data":[65],"ip":"127.0.0.1","port":" 9100"})"
            << ""
            << "port";
    }
    void malformedRequestsStop() {
        QFETCH(QString, frame);
        QFETCH(QString, mainInterface);
        QFETCH(QString, reason);
        expectStop(frame, mainInterface, reason);
    }

    void kitchenTextThatCannotBePrintedStopsAfterTheConnect_data() {
        QTest::addColumn<QString>("frame");
        QTest::newRow("not UTF-8")
            << R"({"requesttype":"kitchenPrint","data":[255,254],"ip":"127.0.0.1","port":PRINTER})";
        // "김치찌개" without the last byte of its last character
        QTest::newRow("cut inside its last character")
            << R"({"requesttype":"kitchenPrint","data":[234,185,128,236,185,152,236,176,140,234,176],"ip":"127.0.0.1","port":PRINTER})";
        // 😀 as UTF-8: a character code page 949 does not have
        QTest::newRow("emoji")
            << R"({"requesttype":"kitchenPrint","data":[65,240,159,152,128],"ip":"127.0.0.1","port":PRINTER})";
    }
    void kitchenTextThatCannotBePrintedStopsAfterTheConnect() {
        QFETCH(QString, frame);
        int connections = 0;
        QByteArray printerBytes;
        expectStop(frame, QString(), QStringLiteral("code page 949"), &connections, &printerBytes);
        QCOMPARE(connections, 1);             // the printer was reached before the stop
        QCOMPARE(printerBytes, QByteArray()); // and got nothing
    }

    void unprintableTextForAnUnreachablePrinterOnlyReportsTheConnectError() {
        const quint16 deadPort = devsim::refusingPort();
        QVERIFY(deadPort != 0);
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(QStringLiteral(
                     R"({"requesttype":"kitchenPrint","data":[240,159,152,128],"ip":"127.0.0.1","port":%1})")
                     .arg(deadPort));
        QVERIFY(service.waitForStdoutLineCount(2, 3000));
        keepRunningFor(500);
        QVERIFY(service.isRunning());
        QCOMPARE(service.stderrLines(), QStringList());
    }

    void wellFormedRequestsDoNotStop_data() {
        QTest::addColumn<QString>("frame");
        QTest::addColumn<QString>("mainInterface");
        QTest::newRow("kitchen print, no interface")
            << R"({"requesttype":"kitchenPrint","data":[65,66],"ip":"127.0.0.1","port":PRINTER})"
            << "";
        QTest::newRow("kitchen port as string")
            << R"({"requesttype":"kitchenPrint","data":[65],"ip":"127.0.0.1","port":"PRINTER"})"
            << "";
        QTest::newRow("kitchen port with plus")
            << R"({"requesttype":"kitchenPrint","data":[65],"ip":"127.0.0.1","port":"+PRINTER"})"
            << "";
        QTest::newRow("escaped Korean")
            << R"({"requesttype":"kitchenPrint","data":[65],"ip":"127.0.0.1","port":PRINTER,"memo":"\uae40\uce58"})"
            << "";
        QTest::newRow("empty data")
            << R"({"requesttype":"kitchenPrint","data":[],"ip":"127.0.0.1","port":PRINTER})"
            << "";
        QTest::newRow("extra keys")
            << R"({"requesttype":"kitchenPrint","data":[65],"ip":"127.0.0.1","port":PRINTER,"van":"KIS","x":[1,{"y":null}]})"
            << "";
        QTest::newRow("USB with no port") << R"({"requesttype":"print","data":[1]})"
                                          << "USB";
        QTest::newRow("USB print, not UTF-8, no port") << R"({"requesttype":"print","data":[255,254]})"
                                                       << "USB";
        QTest::newRow("TCP with no channel") << R"({"requesttype":"print","data":[1]})"
                                             << "TCP";
        QTest::newRow("unknown interface") << R"({"requesttype":"print","data":[1]})"
                                           << "BT";
        QTest::newRow("requesttype number") << R"({"requesttype":5,"data":[1]})"
                                            << "TCP";
    }
    void wellFormedRequestsDoNotStop() {
        QFETCH(QString, frame);
        QFETCH(QString, mainInterface);
        expectNoStop(frame, mainInterface);
    }
};

QTEST_GUILESS_MAIN(FatalStopsTest)
#include "tst_fatalstops.moc"
