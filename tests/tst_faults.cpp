// Faults and load from every side of the real `teranocounter --headless`: frames that are
// huge, broken or dribbled in, connections that never finish or never stop coming, card
// terminals and printers that go silent, hang up or talk too much, and SIGKILL right
// after a setting is written. None of these is a deliberate stop, so every case ends the
// same way: the service is still running and serves the next POS request.
#include "common/cp949.h"
#include "common/localaddresses.h"
#include "devsim/answercall.h"
#include "devsim/printer.h"
#include "devsim/scriptedterminal.h"
#include "devsim/switchedoffdevice.h"
#include "devsim/vendorscripts.h"
#include "posclient.h"
#include "processusage.h"
#include "rawwebsocket.h"
#include "servicefixture.h"
#include "serviceprocess.h"
#include "terminalframes.h"
#include "wait.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>
#include <algorithm>
#include <arpa/inet.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr quint16 gatewayPort = ServiceProcess::gatewayPort;
const QString &recvFired = ServiceProcess::recvFired;
constexpr qsizetype MiB = 1024 * 1024;

QByteArray cp(const QString &text) {
    return cp949::encode(text).value();
}

QString digest(const QByteArray &bytes) {
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex().left(16));
}

// "data" values for `bytes`, each followed by a comma.
QByteArray numberList(const QByteArray &bytes) {
    QByteArray numbers;
    for (const char c : bytes)
        numbers += QByteArray::number(static_cast<unsigned char>(c)) + ',';
    return numbers;
}

// A kitchen order whose frame is exactly `frameSize` bytes: `line` as often as it fits,
// the rest made up by a key the service does not read. `atPrinter` is what the printer
// must receive.
struct SizedOrder {
    QByteArray frame;
    QByteArray atPrinter;
};
SizedOrder sizedKitchenOrder(qsizetype frameSize, quint16 port, const QString &line) {
    const QByteArray head = R"({"requesttype":"kitchenPrint","ip":"127.0.0.1","port":)" +
                            QByteArray::number(port) + ",\"memo\":\"";
    const QByteArray middle = "\",\"data\":[";
    const QByteArray tail = "]}";
    const QByteArray numbers = numberList(line.toUtf8());
    const qsizetype fixed = head.size() + middle.size() + tail.size();
    const qsizetype lines = (frameSize - fixed + 1) / numbers.size(); // the last comma goes
    QByteArray data = numbers.repeated(lines);
    data.chop(1);
    SizedOrder order;
    order.frame = head + QByteArray(frameSize - fixed - data.size(), 'x') + middle + data + tail;
    order.atPrinter = cp(line).repeated(lines);
    return order;
}

// A kitchen order frame for text given as UTF-8 bytes, built without a string per byte.
QByteArray kitchenFrameBytes(const QByteArray &utf8, quint16 port) {
    QByteArray numbers = numberList(utf8);
    numbers.chop(1);
    return R"({"requesttype":"kitchenPrint","data":[)" + numbers + R"(],"ip":"127.0.0.1","port":)" +
           QByteArray::number(port) + '}';
}

bool configureTcp(ServiceProcess &service) {
    return service.runToEnd({"--set", "MAIN_INTERFACE=TCP", "--set", "TCP_IP=127.0.0.1"}) == 0;
}

// The first text frame that makes a page the POS that answers go to, and that the TCP
// channel drops (no vendor by that name).
const QString becomeThePos = QStringLiteral(R"({"requesttype":"noop","van":"none","data":[]})");

// A printer that takes the connection and then never reads: its receive buffer is made as
// small as the kernel allows, so the service's bytes pile up on the service's side.
class StalledPrinter {
public:
    StalledPrinter() {
        listener = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const int small = 4096;
        ::setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &small, sizeof small); // inherited on accept
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (::bind(listener, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
            ::listen(listener, 4) != 0 ||
            ::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) != 0)
            return;
        boundPort = ntohs(address.sin_port);
    }
    ~StalledPrinter() {
        if (accepted >= 0)
            ::close(accepted);
        if (listener >= 0)
            ::close(listener);
    }
    quint16 port() const { return boundPort; }

    // Takes the service's connection off the queue (still without reading a byte).
    bool accept() {
        if (accepted < 0)
            accepted = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        return accepted >= 0;
    }
    // Bytes that reached this side and wait unread.
    int queuedBytes() const {
        int n = -1;
        ::ioctl(accepted, FIONREAD, &n);
        return n;
    }

private:
    int listener = -1;
    int accepted = -1;
    quint16 boundPort = 0;
};

// The largest a kernel lets a TCP send buffer grow (the third field of tcp_wmem).
qint64 maxSendBuffer() {
    QFile file(QStringLiteral("/proc/sys/net/ipv4/tcp_wmem"));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    return file.readAll().simplified().split(' ').value(2).toLongLong();
}

// One scripted exchange of a misbehaving terminal with what the POS must get from it.
struct TerminalCase {
    QString van;
    QString requestType;
    quint16 port = 0;
    QByteArray request;
    QList<devsim::ScriptedTerminal::Step> script;
};

} // namespace

Q_DECLARE_METATYPE(QList<devsim::ScriptedTerminal::Step>)

class FaultsTest : public QObject {
    Q_OBJECT

    // Sends `request` from a fresh POS page to a fake terminal running `script` on
    // loopback (MAIN_INTERFACE=TCP), and waits until the terminal has the request.
    void startExchange(ServiceProcess &service, PosClient &pos, devsim::ScriptedTerminal &terminal,
                       const TerminalCase &c) {
        QVERIFY(terminal.listen(c.port, QHostAddress::LocalHost));
        terminal.setScript(c.script);
        QVERIFY(configureTcp(service));
        QVERIFY(startAndConnect(service, pos));
        pos.send(terminalFrame(c.van, c.request, c.requestType));
        QVERIFY(waitUntil(
            [&] {
                return !terminal.connections().isEmpty() &&
                       terminal.connections().first().received == c.request;
            },
            5000));
    }

private slots:
    void init() { QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use"); }

    // ---- WebSocket -------------------------------------------------------------------

    void largeKitchenOrderReachesThePrinterIntact_data() {
        QTest::addColumn<qsizetype>("frameSize");
        QTest::newRow("64 KiB") << qsizetype(64 * 1024);
        QTest::newRow("1 MiB") << qsizetype(MiB);
        QTest::newRow("16 MiB, the largest accepted") << qsizetype(16 * MiB);
    }
    void largeKitchenOrderReachesThePrinterIntact() {
        QFETCH(qsizetype, frameSize);
        devsim::Printer printer;
        QVERIFY(printer.listen());
        const SizedOrder order = sizedKitchenOrder(frameSize, printer.port(),
                                                   QStringLiteral("주문: 김치찌개 2, 똠얌꿍 1, 콜라 3\n"));
        QCOMPARE(order.frame.size(), frameSize);
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        const qint64 residentBefore = ProcessUsage::residentKiB(service.pid());

        const qint64 sentAt = printer.nowMs();
        pos.send(QString::fromLatin1(order.frame));
        // Parsing a frame of millions of numbers takes a while (longer with sanitizers).
        QVERIFY2(
            waitUntil(
                [&] {
                    return (!printer.connections().isEmpty() &&
                            printer.connections().first().received.size() >= order.atPrinter.size()) ||
                           pos.disconnected || !service.isRunning();
                },
                120000) &&
                !pos.disconnected,
            qPrintable(
                QStringLiteral("the printer has %1 of %2 bytes")
                    .arg(printer.connections().isEmpty() ? 0 : printer.connections().first().received.size())
                    .arg(order.atPrinter.size())));
        const qint64 arrivedAfter = printer.connections().first().lastByteAtMs - sentAt;
        qInfo("frame of %lld bytes: %lld bytes at the printer %lld ms after the send; service resident "
              "%lld KiB before, peak %lld KiB",
              static_cast<long long>(frameSize), static_cast<long long>(order.atPrinter.size()),
              static_cast<long long>(arrivedAfter), static_cast<long long>(residentBefore),
              static_cast<long long>(ProcessUsage::peakResidentKiB(service.pid())));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 1; }, 5000));
        const QByteArray &received = printer.connections().first().received;
        QCOMPARE(received.size(), order.atPrinter.size());
        QCOMPARE(digest(received), digest(order.atPrinter));
        QCOMPARE(service.stdoutLines(), QStringList{recvFired});
        QVERIFY(!pos.disconnected);
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    void kitchenOrderOneByteOver16MiBIsRefusedWith1009() {
        devsim::Printer printer;
        QVERIFY(printer.listen());
        const SizedOrder order =
            sizedKitchenOrder(16 * MiB + 1, printer.port(), QStringLiteral("김치찌개 1\n"));
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(QString::fromLatin1(order.frame));
        QVERIFY(waitUntil([&] { return pos.disconnected; }, 60000));
        QCOMPARE(pos.closeCode, QWebSocketProtocol::CloseCodeTooMuchData);
        keepRunningFor(300);
        QVERIFY(printer.connections().isEmpty()); // never routed, never printed
        QCOMPARE(service.stdoutLines(), QStringList());
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    void textFrameThatIsNotUtf8IsClosedWith1007_data() {
        QTest::addColumn<QList<QByteArray>>("fragments");
        const QByteArray order =
            "{\"requesttype\":\"kitchenPrint\",\"data\":[65],\"ip\":\"127.0.0.1\",\"port\":9,\"memo\":\"";
        QTest::newRow("byte FF") << QList<QByteArray>{order + "\xff\"}"};
        QTest::newRow("overlong slash C0 AF") << QList<QByteArray>{order + "\xc0\xaf\"}"};
        QTest::newRow("UTF-16 surrogate ED A0 80") << QList<QByteArray>{order + "\xed\xa0\x80\"}"};
        QTest::newRow("continuation byte without a lead") << QList<QByteArray>{order + "\x80\"}"};
        QTest::newRow("sequence cut off by the end of the message")
            << QList<QByteArray>{order + "\"}\xe2\x82"};
        QTest::newRow("bad sequence across two fragments")
            << QList<QByteArray>{order + "\xe2", QByteArray("\x28\xa1\"}")};
    }
    void textFrameThatIsNotUtf8IsClosedWith1007() {
        QFETCH(QList<QByteArray>, fragments);
        ServiceProcess service;
        QVERIFY(service.start());
        RawWebSocket client;
        QVERIFY(client.connect(gatewayPort));
        client.write(RawWebSocket::handshake());
        QVERIFY(client.awaitAnswerHead(5000).startsWith("HTTP/1.1 101"));
        for (qsizetype i = 0; i < fragments.size(); ++i) {
            const quint8 opcode = i == 0 ? 0x1 : 0x0; // text, then continuations
            client.write(RawWebSocket::frame(opcode, fragments[i], i == fragments.size() - 1));
        }
        bool ended = false;
        QCOMPARE(client.awaitCloseCode(5000, &ended), int(QWebSocketProtocol::CloseCodeWrongDatatype));
        QVERIFY(ended);
        QCOMPARE(service.stdoutLines(), QStringList()); // never read as a request
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    void requestSentOneBytePerSegmentIsServed() {
        devsim::Printer printer;
        QVERIFY(printer.listen());
        ServiceProcess service;
        QVERIFY(service.start());
        RawWebSocket client;
        QVERIFY(client.connect(gatewayPort));
        QElapsedTimer clock;
        clock.start();
        QVERIFY(client.writeBytewise(RawWebSocket::handshake()));
        QVERIFY(client.awaitAnswerHead(5000).startsWith("HTTP/1.1 101"));
        // Over 125 bytes, so that the frame's extended length comes in pieces as well.
        const QString text = QStringLiteral("주문: 김치찌개 2, 똠얌꿍 1, 공기밥 3\n");
        const QByteArray frame = RawWebSocket::frame(0x1, kitchenOrderFrame(text, printer.port()).toLatin1());
        QVERIFY(frame.size() > 130);
        QVERIFY(client.writeBytewise(frame));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 1; }, 5000));
        qInfo("%lld bytes in as many segments, printed after %lld ms",
              static_cast<long long>(RawWebSocket::handshake().size() + frame.size()),
              static_cast<long long>(clock.elapsed()));
        QCOMPARE(printer.connections().first().received, cp(text));
        QCOMPARE(client.socket.state(), QAbstractSocket::ConnectedState);
        QCOMPARE(service.stdoutLines(), QStringList{recvFired});
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    void twoHundredStalledHandshakesLeaveThePosServed() {
        devsim::Printer printer;
        QVERIFY(printer.listen());
        ServiceProcess service;
        QVERIFY(service.start());
        std::vector<std::unique_ptr<QTcpSocket>> stalled;
        QElapsedTimer clock;
        clock.start();
        for (int i = 0; i < 200; ++i) {
            stalled.push_back(std::make_unique<QTcpSocket>());
            stalled.back()->connectToHost(QHostAddress::LocalHost, gatewayPort);
        }
        const auto connectedCount = [&] {
            return std::count_if(stalled.begin(), stalled.end(),
                                 [](const auto &s) { return s->state() == QAbstractSocket::ConnectedState; });
        };
        QVERIFY(waitUntil([&] { return connectedCount() == 200; }, 10000));
        for (const auto &s : stalled) {
            s->write("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\n"); // and nothing more
            s->flush();
        }
        const qint64 stalledAt = clock.elapsed();

        PosClient pos;
        QVERIFY(pos.open(gatewayPort));
        qInfo("a POS connected %lld ms after 200 stalled handshakes",
              static_cast<long long>(clock.elapsed() - stalledAt));
        pos.send(kitchenOrderFrame(QStringLiteral("첫 주문\n"), printer.port()));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 1; }, 5000));
        QCOMPARE(printer.connections().first().received, cp(QStringLiteral("첫 주문\n")));

        // The stalled ones go after their 10 s; the POS, whose handshake finished, stays.
        QVERIFY(waitUntil([&] { return connectedCount() == 0; }, 20000));
        qInfo("all 200 dropped %lld ms after they connected", static_cast<long long>(clock.elapsed()));
        QVERIFY2(clock.elapsed() >= 9500, qPrintable(QString::number(clock.elapsed())));
        keepRunningFor(500);
        QVERIFY(!pos.disconnected);
        pos.send(kitchenOrderFrame(QStringLiteral("둘째 주문\n"), printer.port()));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 2; }, 5000));
        QCOMPARE(printer.connections().last().received, cp(QStringLiteral("둘째 주문\n")));
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    void fiveHundredOpenConnectionsAndTheSenderGetsItsAnswer() {
        const QByteArray request("\x02PAY500\x03");
        devsim::ScriptedTerminal kis;
        QVERIFY(kis.listen(5000, QHostAddress::LocalHost));
        kis.setScript(devsim::kisExchange(cp(QStringLiteral("승인 500")), 100));
        ServiceProcess service;
        QVERIFY(configureTcp(service));
        QVERIFY(service.start());
        std::vector<std::unique_ptr<PosClient>> pages;
        QElapsedTimer clock;
        clock.start();
        for (int i = 0; i < 500; ++i) {
            pages.push_back(std::make_unique<PosClient>());
            pages.back()->socket.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/").arg(gatewayPort)));
        }
        const auto openCount = [&] {
            return std::count_if(pages.begin(), pages.end(), [](const auto &p) {
                return p->socket.state() == QAbstractSocket::ConnectedState;
            });
        };
        QVERIFY2(waitUntil([&] { return openCount() == 500; }, 60000),
                 qPrintable(QString::number(openCount())));
        qInfo("500 WebSocket connections open after %lld ms; service resident %lld KiB",
              static_cast<long long>(clock.elapsed()),
              static_cast<long long>(ProcessUsage::residentKiB(service.pid())));
        QVERIFY(service.isRunning());

        PosClient &sender = *pages[317];
        sender.send(terminalFrame(QStringLiteral("KIS"), request));
        QVERIFY(waitUntil([&] { return sender.texts.size() == 1; }, 5000));
        QCOMPARE(jsonObject(sender.texts.first()), expectedAnswer(QStringLiteral("승인 500"), "KIS7430"));
        keepRunningFor(300);
        int othersWithText = 0;
        for (const auto &p : pages)
            othersWithText += p.get() != &sender && !p->texts.isEmpty();
        QCOMPARE(othersWithText, 0);
        QCOMPARE(openCount(), 500);
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    // ---- Card terminals --------------------------------------------------------------

    void silentTerminalIsLetGoAfterItsOneSecond_data() {
        QTest::addColumn<QString>("van");
        QTest::addColumn<QString>("requestType");
        QTest::addColumn<quint16>("port");
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<QString>("line");
        QTest::newRow("KICC payment") << "KICC"
                                      << "payment" << quint16(13189) << QByteArray("\x02KICC\x03") << "";
        QTest::newRow("SMARTRO payment")
            << "SMARTRO"
            << "payment" << quint16(5501) << QByteArray("\x02SMT\x03") << "FIRST RESPONSE NOT COMES!";
        QTest::newRow("KIS print") << "KIS"
                                   << "print" << quint16(5000) << QByteArray("SLIP\n") << "";
        QTest::newRow("KIS request with DLE third") << "KIS"
                                                    << "payment" << quint16(5000)
                                                    << QByteArray("\x02"
                                                                  "A\x10"
                                                                  "B\x03")
                                                    << "";
    }
    void silentTerminalIsLetGoAfterItsOneSecond() {
        QFETCH(QString, van);
        QFETCH(QString, requestType);
        QFETCH(quint16, port);
        QFETCH(QByteArray, request);
        QFETCH(QString, line);
        devsim::ScriptedTerminal terminal; // takes the connection, then says nothing
        ServiceProcess service;
        PosClient pos;
        startExchange(service, pos, terminal, {van, requestType, port, request, {}});
        if (QTest::currentTestFailed())
            return;
        QVERIFY(waitUntil([&] { return terminal.closedCount() == 1; }, 5000));
        const devsim::ScriptedTerminal::Connection &c = terminal.connections().first();
        const qint64 held = c.closedAtMs - c.receivedAtMs.last();
        qInfo("closed %lld ms after the request", static_cast<long long>(held));
        QVERIFY2(held >= 900 && held <= 3000, qPrintable(QString::number(held)));
        QVERIFY(!c.hungUpByTerminal);
        if (!line.isEmpty())
            QVERIFY(service.stdoutLines().contains(line));
        QVERIFY(pos.texts.isEmpty());
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    void kisPaymentWaitingForItsCustomerHoldsUpNothingElse() {
        // A 5-byte payment gets no reply at all; a longer one is answered. The KIS terminal
        // runs one script for every connection, so the request decides which one it is.
        const QByteArray silent("\x02PAY\x03");
        const QByteArray answered("\x02PAY-2\x03");
        devsim::ScriptedTerminal kis;
        devsim::Printer printer;
        QVERIFY(printer.listen());
        ServiceProcess service;
        PosClient pos;
        startExchange(
            service, pos, kis,
            {"KIS",
             "payment",
             5000,
             silent,
             {devsim::ScriptedTerminal::awaitBytes(answered.size()), devsim::ScriptedTerminal::reply("\x06"),
              devsim::ScriptedTerminal::reply(kisResult(cp(QStringLiteral("승인 2"))), 100)}});
        if (QTest::currentTestFailed())
            return;
        keepRunningFor(1500); // past the first reply's second: now it waits up to 300 s

        const qint64 orderAt = printer.nowMs();
        pos.send(kitchenOrderFrame(QStringLiteral("김치찌개 1\n"), printer.port()));
        QVERIFY(waitUntil(
            [&] {
                return !printer.connections().isEmpty() && printer.connections().first().lastByteAtMs >= 0;
            },
            2000));
        qInfo("kitchen order printed %lld ms after it was sent",
              static_cast<long long>(printer.connections().first().lastByteAtMs - orderAt));
        QVERIFY(printer.connections().first().lastByteAtMs - orderAt < 1000);

        pos.send(terminalFrame(QStringLiteral("KIS"), answered));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 3000));
        QCOMPARE(jsonObject(pos.texts.first()), expectedAnswer(QStringLiteral("승인 2"), "KIS7430"));
        QVERIFY(waitUntil([&] { return kis.closedCount() == 1; }, 3000));
        // The silent exchange is still waiting for its customer, as it should.
        QCOMPARE(kis.connections().size(), 2);
        QCOMPARE(kis.connections().first().closedAtMs, -1);
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    void terminalThatHangsUpInTheMiddleOfAnAnswer_data() {
        QTest::addColumn<QString>("van");
        QTest::addColumn<quint16>("port");
        QTest::addColumn<QList<devsim::ScriptedTerminal::Step>>("script");
        QTest::addColumn<QString>("posText"); // null: the POS gets nothing
        QTest::addColumn<QString>("line");
        using T = devsim::ScriptedTerminal;
        // KIS has no frame check: what came before the hang-up is the answer, its last
        // byte cut as if it were the ETX.
        QTest::newRow("KIS, cut after a character")
            << "KIS" << quint16(5000)
            << QList<T::Step>{T::awaitBytes(5), T::reply("\x06"),
                              T::reply("\x02"
                                       "AB" +
                                           cp(QStringLiteral("승인 완료 12")),
                                       100),
                              T::hangUp()}
            << QStringLiteral("승인 완료 1") << "";
        QTest::newRow("KIS, cut inside a character")
            << "KIS" << quint16(5000)
            << QList<T::Step>{T::awaitBytes(5), T::reply("\x06"),
                              T::reply("\x02"
                                       "AB" +
                                           cp(QStringLiteral("승인 완")),
                                       100),
                              T::hangUp()}
            << QString() << "euc failed";
        QTest::newRow("KIS, gone while the customer pays")
            << "KIS" << quint16(5000) << QList<T::Step>{T::awaitBytes(5), T::reply("\x06"), T::hangUp(300)}
            << QString() << "";
        QTest::newRow("SMARTRO, final reply cut short")
            << "SMARTRO" << quint16(5501)
            << QList<T::Step>{T::awaitBytes(5), T::reply("FIRST", 50),
                              T::reply("\x10" + cp(QStringLiteral("정상승")), 100), T::hangUp()}
            << QString::fromUtf8("\x10") + QStringLiteral("정상승") << "DLE COMES!";
        QTest::newRow("SMARTRO, gone after the first reply")
            << "SMARTRO" << quint16(5501)
            << QList<T::Step>{T::awaitBytes(5), T::reply("FIRST", 50), T::hangUp(100)} << QString()
            << "TIME OUT OCCURED!";
    }
    void terminalThatHangsUpInTheMiddleOfAnAnswer() {
        QFETCH(QString, van);
        QFETCH(quint16, port);
        QFETCH(QList<devsim::ScriptedTerminal::Step>, script);
        QFETCH(QString, posText);
        QFETCH(QString, line);
        devsim::ScriptedTerminal terminal;
        ServiceProcess service;
        PosClient pos;
        startExchange(service, pos, terminal, {van, "payment", port, QByteArray("\x02PAY\x03"), script});
        if (QTest::currentTestFailed())
            return;
        QVERIFY(waitUntil([&] { return terminal.closedCount() == 1; }, 5000));
        QVERIFY(terminal.connections().first().hungUpByTerminal);
        if (!line.isEmpty())
            QVERIFY2(service.waitForStdoutLine(line, 3000), qPrintable(service.stdoutLines().join(u'|')));
        if (posText.isNull()) {
            keepRunningFor(500);
            QCOMPARE(pos.texts, QStringList());
        } else {
            QVERIFY(waitUntil([&] { return !pos.texts.isEmpty(); }, 3000));
            keepRunningFor(300);
            QCOMPARE(pos.texts.size(), 1);
            QCOMPARE(jsonObject(pos.texts.first()),
                     expectedAnswer(posText, van == QLatin1String("KIS") ? "KIS7430" : "SMT-T263"));
        }
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    void answerListenerTakesHalfAFrameAsTheAnswer() {
        const QStringList addresses = localAddresses();
        QVERIFY2(!addresses.isEmpty(), "this machine has no non-loopback interface up");
        ServiceProcess service;
        QVERIFY(configureTcp(service));
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(becomeThePos);
        QVERIFY(service.waitForStdoutLine(recvFired, 3000));
        // STX and 4 header bytes, then the text; the terminal goes before its 3 trailer
        // bytes. The listener cuts 3 bytes off the end all the same.
        devsim::AnswerCall terminal{QHostAddress(addresses.first()), 13189,
                                    "\x02"
                                    "0123" +
                                        cp(QStringLiteral("승인 OK")),
                                    devsim::AnswerCall::Ending::HangUpAfterSending};
        QVERIFY(waitUntil([&] { return terminal.isFinished(); }, 3000));
        QVERIFY(terminal.isSent());
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 3000));
        QCOMPARE(jsonObject(pos.texts.first()), expectedAnswer(QStringLiteral("승인"), "TS-132N:TS-167"));
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    void silentConnectionOnTheAnswerListenerHoldsUpNoOtherAnswer() {
        const QStringList addresses = localAddresses();
        QVERIFY2(!addresses.isEmpty(), "this machine has no non-loopback interface up");
        ServiceProcess service;
        QVERIFY(configureTcp(service));
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(becomeThePos);
        QVERIFY(service.waitForStdoutLine(recvFired, 3000));
        devsim::AnswerCall silent{
            QHostAddress(addresses.first()), 13189, {}, devsim::AnswerCall::Ending::StaySilent};
        QVERIFY(waitUntil([&] { return silent.isConnected(); }, 3000));
        keepRunningFor(300);

        devsim::AnswerCall terminal{QHostAddress(addresses.first()), 13189,
                                    "\x02"
                                    "0123" +
                                        cp(QStringLiteral("승인 OK")) +
                                        "\x03"
                                        "XY"};
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 3000));
        QCOMPARE(jsonObject(pos.texts.first()), expectedAnswer(QStringLiteral("승인 OK"), "TS-132N:TS-167"));
        // The answer came while the silent one was still held: it is let go only after its
        // 60 s, which this test does not sit out.
        QVERIFY(!silent.isFinished());
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    void kisAnswerOfOneMebibyteReachesThePosCutToTheReadLimit() {
        devsim::ScriptedTerminal kis;
        ServiceProcess service;
        PosClient pos;
        startExchange(service, pos, kis,
                      {"KIS",
                       "payment",
                       5000,
                       QByteArray("\x02PAY\x03"),
                       {devsim::ScriptedTerminal::awaitBytes(5), devsim::ScriptedTerminal::reply("\x06"),
                        devsim::ScriptedTerminal::reply("\x02"
                                                        "AB" +
                                                            QByteArray(MiB - 4, 'x') + "\x03",
                                                        200)}});
        if (QTest::currentTestFailed())
            return;
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 5000));
        QVERIFY(waitUntil([&] { return kis.closedCount() == 1; }, 5000));
        keepRunningFor(300);
        QCOMPARE(pos.texts.size(), 1);
        // One answer made of what the service's one read took (at most 10240 bytes),
        // without the 3 framing bytes in front and the one byte behind.
        const QJsonObject answer = jsonObject(pos.texts.first());
        const QString text = answer.value("response").toObject().value("data").toString();
        qInfo("the POS received %lld characters of the 1 MiB answer", static_cast<long long>(text.size()));
        QVERIFY(text.size() >= 1 && text.size() <= 10240 - 4);
        QCOMPARE(text, QString(text.size(), u'x'));
        QCOMPARE(answer.value("devicename").toString(), QStringLiteral("KIS7430"));
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    void kiccReplyOfOneMebibyteIsDiscarded() {
        devsim::ScriptedTerminal kicc;
        ServiceProcess service;
        PosClient pos;
        startExchange(service, pos, kicc,
                      {"KICC",
                       "payment",
                       13189,
                       QByteArray("\x02KICC\x03"),
                       {devsim::ScriptedTerminal::awaitBytes(6),
                        devsim::ScriptedTerminal::reply(QByteArray(MiB, 'x'), 100)}});
        if (QTest::currentTestFailed())
            return;
        QVERIFY(waitUntil([&] { return kicc.closedCount() == 1; }, 5000));
        keepRunningFor(500);
        QCOMPARE(pos.texts, QStringList());
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    void smartroFloodOfOneMebibyteIsAcknowledgedThenTimesOut() {
        devsim::ScriptedTerminal smartro;
        ServiceProcess service;
        PosClient pos;
        startExchange(service, pos, smartro,
                      {"SMARTRO",
                       "payment",
                       5501,
                       QByteArray("\x02SMT\x03"),
                       {devsim::ScriptedTerminal::awaitBytes(5), devsim::ScriptedTerminal::reply("FIRST", 50),
                        devsim::ScriptedTerminal::reply(QByteArray(MiB, 'x'), 100)}});
        if (QTest::currentTestFailed())
            return;
        // Read 10240 bytes at a time, each read a reply without DLE: acknowledged, and the
        // next awaited; after the last one, 5 s of silence end the exchange.
        QVERIFY(service.waitForStdoutLine(QStringLiteral("TIME OUT OCCURED!"), 15000));
        QVERIFY(waitUntil([&] { return smartro.closedCount() == 1; }, 3000));
        const int acks = static_cast<int>(service.stdoutLines().count(QStringLiteral("ack success")));
        qInfo("%d replies acknowledged for 1 MiB", acks);
        QVERIFY2(acks >= MiB / 10240, qPrintable(QString::number(acks)));
        QCOMPARE(smartro.connections().first().received,
                 QByteArray("\x02SMT\x03") + QByteArray(3 * acks, '\x06'));
        QVERIFY(!service.stdoutLines().contains(QStringLiteral("DLE COMES!")));
        QCOMPARE(pos.texts, QStringList());
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    void answerListenerGivenOneMebibyteTakesItsFirstKibibyte() {
        const QStringList addresses = localAddresses();
        QVERIFY2(!addresses.isEmpty(), "this machine has no non-loopback interface up");
        ServiceProcess service;
        QVERIFY(configureTcp(service));
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(becomeThePos);
        QVERIFY(service.waitForStdoutLine(recvFired, 3000));
        devsim::AnswerCall terminal{QHostAddress(addresses.first()), 5501,
                                    "\x02"
                                    "0123" +
                                        QByteArray(MiB, 'x') +
                                        "\x03"
                                        "XY"};
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 5000));
        // The listener lets go of the flood after its first 1024 bytes.
        QVERIFY(waitUntil([&] { return terminal.isFinished(); }, 5000));
        QVERIFY(terminal.closedByListener());
        keepRunningFor(300);
        QCOMPARE(pos.texts.size(), 1);
        const QJsonObject answer = jsonObject(pos.texts.first());
        const QString text = answer.value("response").toObject().value("data").toString();
        qInfo("the POS received %lld characters of the 1 MiB answer", static_cast<long long>(text.size()));
        QVERIFY(text.size() >= 1 && text.size() <= 1024 - 8);
        QCOMPARE(text, QString(text.size(), u'x'));
        QCOMPARE(answer.value("devicename").toString(), QStringLiteral("SMT-T263"));
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    // ---- Kitchen printers ------------------------------------------------------------

    void refusingPrinterHoldsUpNoOtherOrder() {
        const quint16 refusing = devsim::refusingPort();
        QVERIFY(refusing != 0);
        devsim::Printer printer;
        QVERIFY(printer.listen());
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        const qint64 sentAt = printer.nowMs();
        pos.send(kitchenOrderFrame(QStringLiteral("거절 1\n"), refusing));
        pos.send(kitchenOrderFrame(QStringLiteral("정상 1\n"), printer.port()));
        // Once, under ctest -j6 on two processors, the printer had not seen one finished connection
        // within 5 s; what the service and the printer had seen then says where the order stopped.
        QVERIFY2(waitUntil([&] { return printer.closedCount() == 1; }, 5000),
                 qPrintable(QStringLiteral("refusing port %1, printer port %2: %3 connection(s), %4 closed; "
                                           "service stdout [%5], stderr [%6]")
                                .arg(refusing)
                                .arg(printer.port())
                                .arg(printer.connections().size())
                                .arg(printer.closedCount())
                                .arg(service.stdoutLines().join(QStringLiteral(" | ")),
                                     service.stderrLines().join(QStringLiteral(" | ")))));
        QCOMPARE(printer.connections().first().received, cp(QStringLiteral("정상 1\n")));
        QVERIFY(printer.connections().first().lastByteAtMs - sentAt < 1000);
        QVERIFY(service.waitForStdoutLineCount(3, 3000));
        QStringList lines = service.stdoutLines();
        QCOMPARE(lines.removeAll(recvFired), 2);
        // The refusal may come before or after the second frame's marker: one line, anywhere.
        QCOMPARE(lines.size(), 1);
        QVERIFY2(lines.first().contains(QStringLiteral("127.0.0.1:%1").arg(refusing)) &&
                     lines.first().contains(QStringLiteral("refused"), Qt::CaseInsensitive),
                 qPrintable(lines.first()));
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    void printerThatNeverReadsHoldsUpNoOtherOrder() {
        StalledPrinter stalled;
        QVERIFY(stalled.port() != 0);
        // More than the kernel can hold between the two sockets, so the service is left
        // with bytes it cannot hand over. Tabs take two characters of the frame per byte.
        const qint64 sendBuffer = maxSendBuffer();
        QVERIFY(sendBuffer > 0);
        const qsizetype orderSize = sendBuffer + 2 * MiB;
        if (2 * orderSize + 200 > 16 * MiB)
            QSKIP("this kernel's TCP send buffer is too large for an order of at most 16 MiB to fill");
        const QByteArray order = "김치찌개 1\n" + QByteArray(orderSize, '\t');
        devsim::Printer printer;
        QVERIFY(printer.listen());
        ServiceProcess service;
        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(QString::fromLatin1(kitchenFrameBytes(order, stalled.port())));
        QVERIFY(service.waitForStdoutLine(recvFired, 60000));
        QVERIFY(waitUntil([&] { return stalled.accept(); }, 60000));
        QVERIFY(waitUntil([&] { return stalled.queuedBytes() > 0; }, 10000));

        const qint64 sentAt = printer.nowMs();
        pos.send(kitchenOrderFrame(QStringLiteral("다른 프린터 1\n"), printer.port()));
        QVERIFY(waitUntil([&] { return printer.closedCount() == 1; }, 5000));
        const qint64 after = printer.connections().first().lastByteAtMs - sentAt;
        qInfo("order of %lld bytes stuck with %d bytes at the printer; the next order printed after %lld ms",
              static_cast<long long>(order.size()), stalled.queuedBytes(), static_cast<long long>(after));
        QVERIFY2(after < 1000, qPrintable(QString::number(after)));
        QCOMPARE(printer.connections().first().received, cp(QStringLiteral("다른 프린터 1\n")));
        QVERIFY(stalled.queuedBytes() < order.size()); // the big order really is stuck
        QCOMPARE(pos.texts, QStringList());

        // The stuck order is given up once the printer has taken nothing for 10 s: one line,
        // and the connection (with the memory it holds) is let go.
        const QString target = QStringLiteral("kitchen printer 127.0.0.1:%1: ").arg(stalled.port());
        QElapsedTimer waited;
        waited.start();
        QVERIFY(waitUntil(
            [&] {
                for (const QString &line : service.stdoutLines())
                    if (line.startsWith(target))
                        return true;
                return false;
            },
            20000));
        qInfo("the stuck order was given up %lld ms after the next order printed",
              static_cast<long long>(waited.elapsed()));
        QVERIFY2(waited.elapsed() >= 7000, qPrintable(QString::number(waited.elapsed())));
        QStringList stuckLines;
        for (const QString &line : service.stdoutLines())
            if (line.startsWith(target))
                stuckLines << line;
        QCOMPARE(stuckLines.size(), 1);
        QVERIFY2(stuckLines.first().contains(QStringLiteral("took no more of the order for 10 s")),
                 qPrintable(stuckLines.first()));
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    // ---- Settings --------------------------------------------------------------------

    void settingWrittenWhileRunningSurvivesSigkill() {
        const QByteArray request("\x02PAY\x03");
        devsim::ScriptedTerminal kis;
        QVERIFY(kis.listen(5000, QHostAddress::LocalHost));
        kis.setScript(devsim::kisExchange("OK 1", 50));
        ServiceProcess service;
        QVERIFY(service.start());
        QCOMPARE(service.runToEnd({"--set", "MAIN_INTERFACE=TCP", "--set", "TCP_IP=127.0.0.1"}), 0);
        service.killHard();

        PosClient pos;
        QVERIFY(startAndConnect(service, pos));
        pos.send(terminalFrame(QStringLiteral("KIS"), request));
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 5000));
        QCOMPARE(jsonObject(pos.texts.first()), expectedAnswer(QStringLiteral("OK 1"), "KIS7430"));
        VERIFY_SERVES_NEXT_ORDER(service);
    }

    void firstStartDefaultsSurviveSigkillBesideTheShopsOwnSettings_data() {
        QTest::addColumn<bool>("setWhileStarting");
        QTest::addColumn<QString>("killWhenWritten");
        // The TCP page writes its default first, the USB page its two last.
        QTest::newRow("killed as the first default is written") << false << "TCP_DEVICE=";
        QTest::newRow("set while the defaults are written, killed after the last")
            << true << "SERIAL_DEVICE_TYPE=";
    }
    void firstStartDefaultsSurviveSigkillBesideTheShopsOwnSettings() {
        QFETCH(bool, setWhileStarting);
        QFETCH(QString, killWhenWritten);
        const QStringList shopSettings{"--set", "MAIN_INTERFACE=TCP", "--set", "TCP_IP=127.0.0.1"};
        ServiceProcess service;
        if (!setWhileStarting)
            QCOMPARE(service.runToEnd(shopSettings), 0);
        QVERIFY(service.start(false));
        if (setWhileStarting)
            QCOMPARE(service.runToEnd(shopSettings), 0);
        const auto settingsFile = [&] {
            QFile file(service.settingsFile());
            return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        };
        QVERIFY(waitUntil([&] { return settingsFile().contains(killWhenWritten.toLatin1()); }, 15000));
        service.killHard();
        const QByteArray afterKill = settingsFile();
        QVERIFY2(afterKill.startsWith("[General]") && afterKill.contains("MAIN_INTERFACE=TCP") &&
                     afterKill.contains("TCP_IP=127.0.0.1") && afterKill.contains(killWhenWritten.toLatin1()),
                 afterKill.constData());

        // The next start finds everything and writes what is still missing.
        QVERIFY(service.start());
        QVERIFY(waitUntil([&] { return settingsFile().contains("SERIAL_DEVICE_TYPE="); }, 10000));
        QByteArray out;
        QCOMPARE(service.runToEnd({"--settings"}, &out), 0);
        QCOMPARE(QString::fromUtf8(out).split(u'\n', Qt::SkipEmptyParts),
                 (QStringList{"BAUD_RATE=9600", "MAIN_INTERFACE=TCP", "SERIAL_DEVICE_TYPE=TS-132N",
                              "TCP_DEVICE=KICC", "TCP_IP=127.0.0.1"}));
        VERIFY_SERVES_NEXT_ORDER(service);
    }
};

QTEST_GUILESS_MAIN(FaultsTest)
#include "tst_faults.moc"
