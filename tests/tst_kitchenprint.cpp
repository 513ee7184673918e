#include "common/cp949.h"
#include "devsim/printer.h"
#include "devsim/switchedoffdevice.h"
#include "kitchen/kitchenprintservice.h"
#include "stdoutcapture.h"
#include "wait.h"

#include <QElapsedTimer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>
#include <algorithm>

namespace {

QVariantMap order(const QByteArray &utf8, const QVariant &port,
                  const QVariant &ip = QStringLiteral("127.0.0.1")) {
    return {{"data", utf8},
            {"ip", ip},
            {"port", port},
            {"van", QVariant::fromValue(nullptr)},
            {"requesttype", QStringLiteral("kitchenPrint")}};
}

} // namespace

class KitchenPrintTest : public QObject {
    Q_OBJECT
private slots:
    void asciiOrderIsSentByteForByte() {
        devsim::Printer printer;
        QVERIFY(printer.listen());
        KitchenPrintService().printKitchenOrder(order("TABLE 7\nCOFFEE x2\n", printer.port()));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 1; }, 5000));
        QCOMPARE(printer.connections().first().received, QByteArray("TABLE 7\nCOFFEE x2\n"));
    }

    void hangulIsSentInCodePage949() {
        devsim::Printer printer;
        QVERIFY(printer.listen());
        KitchenPrintService().printKitchenOrder(
            order(QStringLiteral("주문: 김치찌개 2, 똠얌꿍 1\n").toUtf8(), printer.port()));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 1; }, 5000));
        QCOMPARE(printer.connections().first().received,
                 QByteArray::fromHex("c1d6b9ae3a20b1e8c4a1c2eeb0b320322c208c63bee4b2e120310a"));
    }

    void controlBytesPassThrough() {
        devsim::Printer printer;
        QVERIFY(printer.listen());
        const QByteArray escpos("\x1b@\x1b!\x10"
                                "\xed\x95\x9c\n\x1dV\x41\x03",
                                13); // init, size, 한, LF, cut
        KitchenPrintService().printKitchenOrder(order(escpos, printer.port()));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 1; }, 5000));
        QCOMPARE(printer.connections().first().received,
                 QByteArray("\x1b@\x1b!\x10\xc7\xd1\n\x1dV\x41\x03", 12));
    }

    void numberAndStringPortsBehaveAlike() {
        devsim::Printer printer;
        QVERIFY(printer.listen());
        KitchenPrintService().printKitchenOrder(order("A", qlonglong(printer.port())));
        KitchenPrintService().printKitchenOrder(order("B", QString::number(printer.port())));
        KitchenPrintService().printKitchenOrder(
            order("C", QStringLiteral("+") + QString::number(printer.port())));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 3; }, 5000));
        QStringList received;
        for (const auto &c : printer.connections())
            received << QString::fromLatin1(c.received);
        received.sort();
        QCOMPARE(received, (QStringList{"A", "B", "C"}));
    }

    void deadPrintersNeverHoldUpTheEventLoop() {
        devsim::SwitchedOffDevice dead;
        QVERIFY(dead.open());
        StdoutCapture capture;
        for (int i = 0; i < 5; ++i)
            KitchenPrintService().printKitchenOrder(order("X", dead.port()));
        // A call that waited for its connect would have given up on it, and said so,
        // before returning: nothing is said until the event loop runs.
        QCOMPARE(capture.lines(), QStringList());
        // Until the five connects have given up, a 10 ms timer keeps firing. A connect that
        // held the loop would stop it for the whole second of its time-out; the bound is
        // well short of that and well above what a busy machine delays a timer by.
        QElapsedTimer clock;
        clock.start();
        qint64 lastTickAt = 0;
        qint64 longestGap = 0;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, [&] {
            longestGap = std::max(longestGap, clock.elapsed() - lastTickAt);
            lastTickAt = clock.elapsed();
        });
        ticker.start(10);
        QVERIFY(waitUntil([&] { return capture.lines().size() == 5; }, 10000));
        longestGap = std::max(longestGap, clock.elapsed() - lastTickAt);
        QVERIFY2(longestGap < 700,
                 qPrintable(QStringLiteral("the loop stood still for %1 ms").arg(longestGap)));
        for (const QString &line : capture.lines())
            QVERIFY2(line.contains("timed out"), qPrintable(line));
    }

    void silentPrinterIsClosedAboutOneSecondAfterTheSend() {
        devsim::Printer printer;
        QVERIFY(printer.listen());
        KitchenPrintService().printKitchenOrder(order("ORDER\n", printer.port()));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 1; }, 5000));
        const auto &c = printer.connections().first();
        const qint64 held = c.closedAtMs - c.lastByteAtMs;
        QVERIFY2(held >= 900 && held <= 1500, qPrintable(QStringLiteral("held %1 ms").arg(held)));
    }

    void answeringPrinterIsClosedOnceItHasAnswered() {
        devsim::Printer printer;
        printer.setReply("\x10\x04\x01 status");
        QVERIFY(printer.listen());
        KitchenPrintService().printKitchenOrder(order("ORDER\n", printer.port()));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 1; }, 5000));
        const auto &c = printer.connections().first();
        QCOMPARE(c.received, QByteArray("ORDER\n"));
        QVERIFY2(c.closedAtMs - c.lastByteAtMs < 500,
                 qPrintable(QString::number(c.closedAtMs - c.lastByteAtMs)));
    }

    void printerThatSpokeDuringTheSendIsClosedOnceTheOrderIsIn() {
        // A printer that reports its status as soon as it is connected, and takes a large
        // order slowly: its status is there before the last byte of the order has gone, and
        // the read after the send finds it at once.
        QTcpServer printer;
        QVERIFY(printer.listen(QHostAddress::LocalHost));
        KitchenPrintService service;
        QByteArray text(16 * 1024 * 1024, 'x'); // more than both sides' socket buffers hold
        service.printKitchenOrder(order(text, printer.serverPort()));
        QVERIFY(waitUntil([&] { return printer.hasPendingConnections(); }, 5000));
        QTcpSocket *line = printer.nextPendingConnection();
        line->setReadBufferSize(1); // takes nothing of the order yet
        bool statusOut = false;
        connect(line, &QTcpSocket::bytesWritten, [&] { statusOut = true; });
        line->write("\x10\x04\x01 status");
        QVERIFY(waitUntil([&] { return statusOut; }, 3000));
        // The status is in the service's socket now; two turns of the loop let it be read.
        int turns = 0;
        QTimer::singleShot(0, [&] { QTimer::singleShot(0, [&] { turns = 2; }); });
        QVERIFY(waitUntil([&] { return turns == 2; }, 3000));

        QElapsedTimer clock;
        clock.start();
        QByteArray received = line->readAll();
        QVERIFY2(received.size() < text.size(), "the order went out whole before the status came");
        qint64 lastByteAtMs = 0;
        qint64 closedAtMs = -1;
        const auto take = [&] {
            const QByteArray more = line->readAll();
            if (!more.isEmpty()) {
                received += more;
                lastByteAtMs = clock.elapsed();
            }
        };
        connect(line, &QTcpSocket::readyRead, take);
        connect(line, &QTcpSocket::disconnected, [&] {
            take();
            closedAtMs = clock.elapsed();
        });
        line->setReadBufferSize(0);
        take();
        QVERIFY2(waitUntil([&] { return closedAtMs >= 0; }, 8000),
                 qPrintable(QString::number(received.size())));
        QCOMPARE(received.size(), text.size());
        QVERIFY2(
            closedAtMs - lastByteAtMs < 500,
            qPrintable(QStringLiteral("closed %1 ms after the last byte").arg(closedAtMs - lastByteAtMs)));
    }

    void tenOrdersToASilentPrinterAllArriveWithinOneSecond() {
        devsim::Printer printer;
        QVERIFY(printer.listen());
        const qint64 sentAt = printer.nowMs();
        for (int i = 0; i < 10; ++i)
            KitchenPrintService().printKitchenOrder(
                order(QByteArray("ORDER ") + QByteArray::number(i), printer.port()));
        QVERIFY(waitUntil(
            [&] {
                int complete = 0;
                for (const auto &c : printer.connections())
                    complete += c.received.size() >= 7;
                return complete == 10;
            },
            1000));
        QStringList received;
        for (const auto &c : printer.connections()) {
            QVERIFY(c.lastByteAtMs - sentAt < 1000);
            received << QString::fromLatin1(c.received);
        }
        received.sort();
        QCOMPARE(received.size(), 10);
        QCOMPARE(received.first(), QStringLiteral("ORDER 0"));
        QCOMPARE(received.last(), QStringLiteral("ORDER 9"));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 10; }, 3000));
    }

    void largeOrderArrivesWhole() {
        devsim::Printer printer;
        QVERIFY(printer.listen());
        QByteArray text;
        while (text.size() < 2 * 1024 * 1024)
            text += QStringLiteral("김치찌개 %1\n").arg(text.size()).toUtf8();
        KitchenPrintService().printKitchenOrder(order(text, printer.port()));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 1; }, 10000));
        QCOMPARE(printer.connections().first().received, *cp949::encode(QString::fromUtf8(text)));
    }
};

QTEST_GUILESS_MAIN(KitchenPrintTest)
#include "tst_kitchenprint.moc"
