// The simulated devices on their own: how the printer shows ESC/POS, and each terminal's
// exchange as a scripted client (standing in for the service) sees it on the wire.
#include "common/cp949.h"
#include "devsim/eventwait.h"
#include "devsim/printer.h"
#include "devsim/scriptedterminal.h"
#include "devsim/serialterminal.h"
#include "devsim/switchedoffdevice.h"
#include "devsim/vendorscripts.h"
#include "devsim/wiretext.h"
#include "wait.h"

#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>
#include <fcntl.h>
#include <unistd.h>

namespace {

QByteArray cp(const QString &text) {
    return cp949::encode(text).value();
}

// Reads from `socket` until `count` bytes have come or the time is up.
QByteArray readBytes(QTcpSocket &socket, qsizetype count, int timeoutMs) {
    QByteArray bytes;
    waitUntil(
        [&] {
            bytes += socket.readAll();
            return bytes.size() >= count;
        },
        timeoutMs);
    return bytes;
}

} // namespace

class DevsimTest : public QObject {
    Q_OBJECT

private slots:
    void piecesCutWhereTheyAreTold() {
        const QByteArray bytes("0123456789");
        QCOMPARE(devsim::Pieces{}.split(bytes), QList<QByteArray>{bytes});
        QCOMPARE(devsim::Pieces::at({3, 7}, 0).split(bytes), (QList<QByteArray>{"012", "3456", "789"}));
        // Offsets outside the bytes, or not ascending, cut nothing.
        QCOMPARE(devsim::Pieces::at({0, 5, 5, 2, 10, 12}, 0).split(bytes),
                 (QList<QByteArray>{"01234", "56789"}));
        QCOMPARE(devsim::Pieces::even(3, 0).split(bytes), (QList<QByteArray>{"012", "345", "6789"}));
        QCOMPARE(devsim::Pieces::even(20, 0).split("abc"), (QList<QByteArray>{"a", "b", "c"}));
    }

    void replyInPiecesArrivesInPiecesApart() {
        devsim::ScriptedTerminal terminal;
        QVERIFY(terminal.listen());
        terminal.setScript({devsim::ScriptedTerminal::awaitRequest(),
                            devsim::ScriptedTerminal::reply("ABCDEF", 0, devsim::Pieces::at({2, 4}, 150))});
        QTcpSocket client;
        client.connectToHost(QHostAddress::LocalHost, terminal.port());
        QVERIFY(client.waitForConnected(2000));
        client.write("REQ");
        QElapsedTimer clock;
        clock.start();
        QList<QPair<qint64, QByteArray>> arrivals;
        QObject::connect(&client, &QTcpSocket::readyRead, [&] {
            arrivals.append({clock.elapsed(), client.readAll()});
        });
        QVERIFY(waitUntil([&] { return arrivals.size() == 3; }, 3000));
        QCOMPARE(arrivals[0].second + arrivals[1].second + arrivals[2].second, QByteArray("ABCDEF"));
        QCOMPARE(arrivals[1].second, QByteArray("CD"));
        QVERIFY2(arrivals[2].first - arrivals[0].first >= 250,
                 qPrintable(QString::number(arrivals[2].first)));
    }

    void printerTags_data() {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("shown");
        QTest::newRow("initialise") << QByteArray("\x1b@") << QStringLiteral("<ESC @>");
        QTest::newRow("full cut") << QByteArray("\x1dV\x00", 3) << QStringLiteral("<GS V 0>");
        QTest::newRow("partial cut") << QByteArray("\x1dV\x01") << QStringLiteral("<GS V 1>");
        QTest::newRow("feed and cut") << QByteArray("\x1dV\x42\x03") << QStringLiteral("<GS V 66 3>");
        QTest::newRow("print mode") << QByteArray("\x1b!\x30") << QStringLiteral("<ESC ! 48>");
        QTest::newRow("emphasis on") << QByteArray("\x1b"
                                                   "E\x01")
                                     << QStringLiteral("<ESC E 1>");
        QTest::newRow("centre") << QByteArray("\x1b"
                                              "a\x01")
                                << QStringLiteral("<ESC a 1>");
        QTest::newRow("feed lines") << QByteArray("\x1b"
                                                  "d\x05")
                                    << QStringLiteral("<ESC d 5>");
        QTest::newRow("character size") << QByteArray("\x1d!\x11") << QStringLiteral("<GS ! 17>");
        QTest::newRow("left margin") << QByteArray("\x1dL\x10\x00", 4) << QStringLiteral("<GS L 16 0>");
        QTest::newRow("drawer kick") << QByteArray("\x1bp\x00\x19\xfa", 5)
                                     << QStringLiteral("<ESC p 0 25 250>");
        QTest::newRow("korean mode") << QByteArray("\x1c&") << QStringLiteral("<FS &>");
        QTest::newRow("line feed") << QByteArray("\n") << QStringLiteral("<LF>");
        QTest::newRow("unknown ESC command") << QByteArray("\x1bZ") << QStringLiteral("<ESC>Z");
        QTest::newRow("ESC at the very end") << QByteArray("AB\x1b") << QStringLiteral("AB<ESC>");
        QTest::newRow("cut missing its argument") << QByteArray("\x1dV") << QStringLiteral("<GS>V");
        QTest::newRow("hangul") << cp(QStringLiteral("김치찌개 2")) << QStringLiteral("김치찌개 2");
        QTest::newRow("a kitchen order")
            << QByteArray("\x1b@\x1b!\x30") + cp(QStringLiteral("주방 1번")) + "\n" +
                   cp(QStringLiteral("김치찌개 2")) +
                   QByteArray("\n\x1d"
                              "V\x00",
                              4)
            << QStringLiteral("<ESC @><ESC ! 48>주방 1번<LF>김치찌개 2<LF><GS V 0>");
        QTest::newRow("not code page 949") << QByteArray("A\xff\x80"
                                                         "B")
                                           << QStringLiteral("A<ff><80>B");
        QTest::newRow("lone lead byte at the end") << QByteArray("A\xb1") << QStringLiteral("A<b1>");
    }
    void printerTags() {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, shown);
        QCOMPARE(devsim::printerText(bytes), shown);
    }

    void terminalBytesAreNamedNotTakenForEscPos() {
        QCOMPARE(devsim::terminalText(QByteArray("\x02"
                                                 "00") +
                                      cp(QStringLiteral("승인")) + "\x03"),
                 QStringLiteral("<STX>00승인<ETX>"));
        QCOMPARE(devsim::terminalText(QByteArray("\x06\x10\x1b@")), QStringLiteral("<ACK><DLE><ESC>@"));
    }

    void aWireLineHoldsTimeHexAndText() {
        const QString line =
            devsim::wireLine(QStringLiteral("printer"), QStringLiteral("job from 127.0.0.1:4000"),
                             QByteArray("\x1b@A"), devsim::printerText("\x1b@A"));
        static const QRegularExpression shape(QStringLiteral(
            R"(^\d\d:\d\d:\d\d\.\d\d\d printer job from 127\.0\.0\.1:4000 3 bytes \| 1b 40 41 \| <ESC @>A$)"));
        QVERIFY2(shape.match(line).hasMatch(), qPrintable(line));
    }

    void printerShowsEachJobWhenTheSenderCloses() {
        devsim::Printer printer;
        QStringList lines;
        printer.setLog([&](const QString &line) { lines << line; });
        QVERIFY(printer.listen());
        QTcpSocket sender;
        sender.connectToHost(QHostAddress::LocalHost, printer.port());
        QVERIFY(sender.waitForConnected(2000));
        sender.write(QByteArray("\x1b@") + cp(QStringLiteral("김치찌개 2\n")));
        sender.flush();
        QVERIFY(waitUntil(
            [&] {
                return !printer.connections().isEmpty() && !printer.connections().first().received.isEmpty();
            },
            2000));
        QVERIFY(lines.isEmpty()); // still open: the job may go on
        sender.write(QByteArray("\x1dV\x00", 3));
        sender.disconnectFromHost();
        QVERIFY(waitUntil([&] { return lines.size() == 1; }, 2000));
        QVERIFY2(lines.first().endsWith(QStringLiteral("| <ESC @>김치찌개 2<LF><GS V 0>")),
                 qPrintable(lines.first()));
        QCOMPARE(printer.closedCount(), 1);
    }

    void kisAcknowledgesThenSendsItsResultAfterTheDelay() {
        devsim::ScriptedTerminal kis;
        kis.setScript(devsim::kisExchange(cp(QStringLiteral("승인 12345")), 300));
        QVERIFY(kis.listen());
        QTcpSocket service;
        service.connectToHost(QHostAddress::LocalHost, kis.port());
        QVERIFY(service.waitForConnected(2000));
        QElapsedTimer clock;
        clock.start();
        service.write("\x02PAY\x03");
        QCOMPARE(readBytes(service, 1, 2000), QByteArray("\x06"));
        const QByteArray result = readBytes(service, 4, 2000);
        QVERIFY2(clock.elapsed() >= 290, qPrintable(QString::number(clock.elapsed())));
        // The delay sits between the acknowledgement and the result, by the terminal's own clock.
        const QList<qint64> &sent = kis.connections().first().replySentAtMs;
        QCOMPARE(sent.size(), 2);
        QVERIFY2(sent[1] - sent[0] >= 290, qPrintable(QString::number(sent[1] - sent[0])));
        // The service cuts 3 bytes in front and 1 behind.
        QCOMPARE(result.size() > 4, true);
        QCOMPARE(cp949::decode(result.mid(3).chopped(1)), QStringLiteral("승인 12345"));
        QCOMPARE(kis.connections().first().received, QByteArray("\x02PAY\x03"));
    }

    void smartroWaitsForEachAcknowledgementAndEndsWithDle() {
        devsim::ScriptedTerminal smartro;
        smartro.setScript(devsim::smartroExchange(cp(QStringLiteral("정상승인")), 0));
        QVERIFY(smartro.listen());
        QTcpSocket service;
        service.connectToHost(QHostAddress::LocalHost, smartro.port());
        QVERIFY(service.waitForConnected(2000));
        service.write("\x02REQ\x03");
        QCOMPARE(readBytes(service, 1, 2000), QByteArray("\x06")); // the first reply, never acknowledged
        const QByteArray second = readBytes(service, 1, 2000);
        QVERIFY(!second.isEmpty());
        QVERIFY(second.at(0) != '\x10');
        // Nothing more until the service acknowledges that reply.
        QCOMPARE(readBytes(service, 1, 400), QByteArray());
        service.write(QByteArray(3, '\x06'));
        const QByteArray last = readBytes(service, 1 + 8, 2000);
        QCOMPARE(last, QByteArray("\x10") + cp(QStringLiteral("정상승인")));
        service.write(QByteArray(3, '\x06'));
        QVERIFY(waitUntil([&] { return smartro.connections().first().received.size() == 5 + 6; }, 2000));
        QCOMPARE(smartro.connections().first().received, QByteArray("\x02REQ\x03") + QByteArray(6, '\x06'));
    }

    void kiccDeliversItsAnswerToTheListener() {
        const QByteArray answer = cp(QStringLiteral("승인 OK"));
        QTcpServer listener; // the service's answer listener: takes one frame, then lets go
        QVERIFY(listener.listen(QHostAddress::LocalHost));
        QByteArray delivered;
        connect(&listener, &QTcpServer::newConnection, this, [&] {
            QTcpSocket *socket = listener.nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, this, [&, socket] {
                delivered += socket->readAll();
                if (delivered.size() >= 5 + answer.size() + 3)
                    socket->disconnectFromHost();
            });
        });
        devsim::ScriptedTerminal kicc;
        kicc.setScript(devsim::kiccExchange(answer, 100, QHostAddress::LocalHost, listener.serverPort()));
        QVERIFY(kicc.listen());
        QTcpSocket service;
        service.connectToHost(QHostAddress::LocalHost, kicc.port());
        QVERIFY(service.waitForConnected(2000));
        service.write("\x02KICC\x03");
        QCOMPARE(readBytes(service, 1, 2000), QByteArray("\x06"));
        service.disconnectFromHost();
        QVERIFY(waitUntil(
            [&] { return !kicc.deliveries().isEmpty() && kicc.deliveries().first()->isFinished(); }, 2000));
        // The listener cuts 5 bytes in front and 3 behind.
        QCOMPARE(cp949::decode(delivered.mid(5).chopped(3)), QStringLiteral("승인 OK"));
        QCOMPARE(kicc.deliveries().size(), 1);
        QVERIFY(kicc.deliveries().first()->isSent());
        QVERIFY(kicc.deliveries().first()->closedByListener()); // the terminal held the line till then
        QCOMPARE(kicc.deliveries().first()->error(), QString());
    }

    void answerCallsThatMisbehave() {
        QTcpServer listener;
        QVERIFY(listener.listen(QHostAddress::LocalHost));
        QList<QTcpSocket *> accepted;
        connect(&listener, &QTcpServer::newConnection, this,
                [&] { accepted << listener.nextPendingConnection(); });

        // Cut off: the bytes, then the terminal hangs up without waiting for the listener.
        devsim::AnswerCall cutOff(QHostAddress::LocalHost, listener.serverPort(),
                                  "\x02"
                                  "0123OK",
                                  devsim::AnswerCall::Ending::HangUpAfterSending);
        QVERIFY(waitUntil([&] { return cutOff.isFinished(); }, 2000));
        QVERIFY(cutOff.isSent());
        QVERIFY(!cutOff.closedByListener());
        QVERIFY(waitUntil(
            [&] { return accepted.size() == 1 && accepted[0]->state() != QAbstractSocket::ConnectedState; },
            2000));
        QCOMPARE(accepted[0]->readAll(), QByteArray("\x02"
                                                    "0123OK"));

        // Silent: connected, and not a byte.
        devsim::AnswerCall silent(QHostAddress::LocalHost, listener.serverPort(), "never sent",
                                  devsim::AnswerCall::Ending::StaySilent);
        QVERIFY(waitUntil([&] { return silent.isConnected() && accepted.size() == 2; }, 2000));
        keepRunningFor(200);
        QCOMPARE(accepted[1]->bytesAvailable(), 0);
        QVERIFY(!silent.isFinished());
        silent.hangUp();
        QVERIFY(waitUntil([&] { return accepted[1]->state() != QAbstractSocket::ConnectedState; }, 2000));
        QCOMPARE(accepted[1]->readAll(), QByteArray());
    }

    void kiccSaysWhenNobodyTakesItsAnswer() {
        const quint16 nobody = devsim::refusingPort();
        QVERIFY(nobody != 0);
        QStringList lines;
        devsim::ScriptedTerminal kicc;
        kicc.setLog(QStringLiteral("kicc"), [&](const QString &line) { lines << line; });
        kicc.setScript(devsim::kiccExchange("OK", 0, QHostAddress::LocalHost, nobody));
        QVERIFY(kicc.listen());
        QTcpSocket service;
        service.connectToHost(QHostAddress::LocalHost, kicc.port());
        QVERIFY(service.waitForConnected(2000));
        service.write("REQ");
        QVERIFY(waitUntil(
            [&] { return !kicc.deliveries().isEmpty() && kicc.deliveries().first()->isFinished(); }, 3000));
        QVERIFY(!kicc.deliveries().first()->error().isEmpty());
        QVERIFY2(lines.last().startsWith(QStringLiteral("kicc answer to 127.0.0.1:%1 failed: ").arg(nobody)),
                 qPrintable(lines.last()));
    }

    void serialTerminalAnswersInItsModelsFraming_data() {
        QTest::addColumn<QString>("model");
        QTest::addColumn<int>("front");
        QTest::addColumn<int>("back");
        QTest::newRow("TS-132N") << QStringLiteral("TS-132N") << 5 << 3;
        QTest::newRow("TS-167") << QStringLiteral("TS-167") << 5 << 3;
        QTest::newRow("SMT-T263") << QStringLiteral("SMT-T263") << 5 << 3;
        QTest::newRow("KIS-7430") << QStringLiteral("KIS-7430") << 3 << 1;
    }
    void serialTerminalAnswersInItsModelsFraming() {
        QFETCH(QString, model);
        QFETCH(int, front);
        QFETCH(int, back);
        QTemporaryDir dir;
        const QString link = dir.filePath(QStringLiteral("port"));
        devsim::SerialTerminal terminal(model, cp(QStringLiteral("승인 1")));
        QVERIFY(terminal.plug(link));
        QCOMPARE(terminal.path(), link);
        const int line = ::open(QFile::encodeName(link).constData(), O_RDWR | O_NOCTTY | O_NONBLOCK);
        QVERIFY(line >= 0);
        QCOMPARE(::write(line, "PAY", 3), 3);
        QByteArray answer;
        QVERIFY(waitUntil(
            [&] {
                char buffer[256];
                const ssize_t n = ::read(line, buffer, sizeof buffer);
                if (n > 0)
                    answer.append(buffer, n);
                return answer.endsWith('\x03');
            },
            2000));
        ::close(line);
        QCOMPARE(answer.at(0), '\x02');
        QCOMPARE(cp949::decode(answer.mid(front).chopped(back)), QStringLiteral("승인 1"));
        QCOMPARE(terminal.received(), QByteArray("PAY"));
        QCOMPARE(terminal.answerCount(), 1);
    }

    void unpluggingTakesThePortAway() {
        QTemporaryDir dir;
        const QString link = dir.filePath(QStringLiteral("port"));
        devsim::SerialTerminal terminal(QStringLiteral("TS-132N"), "OK");
        QVERIFY(terminal.plug(link));
        const QString device = terminal.devicePath();
        QVERIFY(QFile::exists(link));
        QVERIFY(QFile::exists(device));
        terminal.unplug();
        QVERIFY(!QFile::exists(link));
        QVERIFY(!QFile::exists(device));
        QVERIFY(terminal.plug(link));
        QVERIFY(QFile::exists(link));
    }

    // A test waiting on the service must leave the processors to it: the wait sleeps until an
    // event or its tick comes, and looks at its condition about once per tick. A loop that never
    // sleeps looks hundreds of thousands of times in the same half second.
    void waitingSleepsBetweenLooks() {
        int looks = 0;
        QElapsedTimer clock;
        clock.start();
        QVERIFY(!devsim::runEventsUntil([&] { return ++looks < 0; }, 500));
        QVERIFY(clock.elapsed() >= 500);
        QVERIFY2(looks < 1000, qPrintable(QString::number(looks)));

        // An event that makes the condition true ends the wait.
        bool fired = false;
        QTimer::singleShot(50, [&] { fired = true; });
        QVERIFY(devsim::runEventsUntil([&] { return fired; }, 5000));
    }
};

QTEST_GUILESS_MAIN(DevsimTest)
#include "tst_devsim.moc"
