// The TCP terminal channel in-process: its controller with recorded outlets, fake KICC,
// KIS and SMARTRO terminals on loopback, and the answer listeners on loopback.
#include "common/cp949.h"
#include "common/settings.h"
#include "common/userdefaults.h"
#include "devsim/answercall.h"
#include "devsim/scriptedterminal.h"
#include "devsim/switchedoffdevice.h"
#include "devsim/vendorscripts.h"
#include "forked.h"
#include "recordingoutlets.h"
#include "stdoutcapture.h"
#include "terminal_tcp/tcpclient.h"
#include "terminal_tcp/tcpviewcontroller.h"
#include "terminal_tcp/terminallistener.h"
#include "wait.h"

#include <QElapsedTimer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>
#include <algorithm>

namespace {

// A request as routing hands it over: "van" and "requesttype" count only as JSON text.
TerminalRequest request(const QVariant &van, const QByteArray &data,
                        const QVariant &requestType = "payment") {
    TerminalRequest r;
    r.data = data;
    if (van.typeId() == QMetaType::QString)
        r.van = van.toString();
    if (requestType.typeId() == QMetaType::QString)
        r.requestType = requestType.toString();
    return r;
}

QByteArray cp(const QString &text) {
    return cp949::encode(text).value();
}

// Empty when the service closed the terminal's only connection 0.9 to 1.6 s after the
// request's last byte (a one-second read that got nothing); otherwise what happened.
QString closedAboutOneSecondAfterTheRequest(const devsim::ScriptedTerminal &terminal) {
    if (!waitUntil([&] { return terminal.closedCount() == 1; }, 3000))
        return QStringLiteral("the connection was not closed");
    const devsim::ScriptedTerminal::Connection &c = terminal.connections().first();
    const qint64 held = c.closedAtMs - c.receivedAtMs.last();
    return held >= 900 && held <= 1600 ? QString()
                                       : QStringLiteral("closed %1 ms after the request").arg(held);
}

TerminalAnswer answer(const QString &text, const QString &deviceName) {
    return {text, deviceName};
}

} // namespace

class TcpChannelTest : public QObject {
    Q_OBJECT
    QTemporaryDir config;
    QList<TerminalAnswer> answers;
    int interfaceChosen = 0; // times the page said TCP was made the active interface
    std::unique_ptr<StdoutCapture> capture;
    std::unique_ptr<devsim::ScriptedTerminal> kicc, kis, smartro;
    std::unique_ptr<TCPViewController> controller;
    RecordingTitle title;
    RecordingTextField ipField;
    RecordingPopup popup;
    RecordingLabel kiccLabel, kisLabel, smartroLabel;
    RecordingControl testButton;

    void load(ExchangeTimings timings = {}) {
        controller = std::make_unique<TCPViewController>();
        QObject::connect(controller.get(), &TerminalChannel::answerReady,
                         [this](const TerminalAnswer &a) { answers << a; });
        QObject::connect(
            &Settings::shared(), &Settings::interfaceChosen, controller.get(),
            [this](Settings::Interface chosen) { interfaceChosen += chosen == Settings::Interface::Tcp; });
        controller->titleLabel = &title;
        controller->ipTextfield = &ipField;
        controller->tcpDevicePopupButton = &popup;
        controller->kiccLabel = &kiccLabel;
        controller->kisLabel = &kisLabel;
        controller->smartroLabel = &smartroLabel;
        controller->connectionTestButton = &testButton;
        controller->localAddressLookup = [] { return QStringList{"127.0.0.1"}; };
        controller->kiccAnswerPort = 0;
        controller->smartroAnswerPort = 0;
        controller->senders = VendorSenders({kicc->port(), kis->port(), smartro->port()}, timings);
        controller->viewDidLoad();
    }

    void post(const TerminalRequest &r) { controller->handleRequest(r); }

    int connectionCount() const {
        return static_cast<int>(kicc->connections().size() + kis->connections().size() +
                                smartro->connections().size());
    }

    // Every exchange with a terminal has ended: its connection is closed and none of its
    // callbacks will run again, so what it printed and answered is all there will be. An
    // exchange belongs to the application until it deletes itself.
    static bool exchangesEnd(int timeoutMs = 3000) {
        return waitUntil(
            [] {
                QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
                return QCoreApplication::instance()->findChildren<TcpClient *>().isEmpty();
            },
            timeoutMs);
    }

    // The lines the channel printed, without the dispatcher's line for each request.
    QStringList channelLines() const {
        QStringList lines = capture->lines();
        lines.removeIf([](const QString &l) { return l.startsWith(QLatin1String("TCP request: ")); });
        return lines;
    }

    // The KIS payment is posted; its answer reaches the POS once, whole, and the exchange
    // ends without a line.
    void payAndExpectTheKisAnswer(const QString &text, int timeoutMs) {
        post(request("KIS", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, timeoutMs));
        QCOMPARE(answers.first(), answer(text, "KIS7430"));
        QVERIFY(waitUntil([&] { return kis->closedCount() == 1; }, 2000));
        QVERIFY(exchangesEnd());
        QCOMPARE(answers.size(), 1);
        QCOMPARE(channelLines(), QStringList());
    }

    // Requests are taken in the order they are posted: once a later payment to KIS has
    // reached its terminal, whatever an earlier request was going to send would be on its way.
    // Returns whether the probe arrived; the caller checks what else did.
    bool probeReachesKis() {
        const QByteArray probe("\x02PROBE\x03");
        post(request("KIS", probe));
        return waitUntil(
            [&] {
                return std::any_of(kis->connections().cbegin(), kis->connections().cend(),
                                   [&](const auto &c) { return c.received == probe; });
            },
            3000);
    }

    bool deliverToListener(const TerminalListener *listener, const QByteArray &frame) {
        devsim::AnswerCall terminal{QHostAddress::LocalHost, listener->serverPort(), frame};
        return waitUntil([&] { return terminal.isFinished(); }, 5000) && terminal.closedByListener();
    }

private slots:
    void initTestCase() { qputenv("XDG_CONFIG_HOME", QFile::encodeName(config.path())); }

    void init() {
        for (const QString &key : UserDefaults::standard().keys())
            UserDefaults::standard().remove(key);
        UserDefaults::standard().setValue("TCP_IP", "127.0.0.1");
        answers.clear();
        interfaceChosen = 0;
        title = {};
        ipField = {};
        popup = {};
        popup.addItemsWithTitles(TCPViewController::vendors);
        kiccLabel = {};
        smartroLabel = {};
        kicc = std::make_unique<devsim::ScriptedTerminal>();
        kis = std::make_unique<devsim::ScriptedTerminal>();
        smartro = std::make_unique<devsim::ScriptedTerminal>();
        QVERIFY(kicc->listen() && kis->listen() && smartro->listen());
        capture = std::make_unique<StdoutCapture>();
    }

    void cleanup() {
        controller.reset();
        kicc.reset();
        kis.reset();
        smartro.reset();
        // Exchanges still waiting see their terminal go, and finish within this test.
        QVERIFY(exchangesEnd());
        capture.reset();
    }

    // ---- choosing the vendor

    void upperAndLowerCaseVanReachTheSameTerminal_data() {
        QTest::addColumn<QString>("van");
        QTest::addColumn<int>("terminal");
        QTest::newRow("KIS") << "KIS" << 1;
        QTest::newRow("kis") << "kis" << 1;
        QTest::newRow("KICC") << "KICC" << 0;
        QTest::newRow("kicc") << "kicc" << 0;
        QTest::newRow("SMARTRO") << "SMARTRO" << 2;
        QTest::newRow("smartro") << "smartro" << 2;
    }
    void upperAndLowerCaseVanReachTheSameTerminal() {
        QFETCH(QString, van);
        QFETCH(int, terminal);
        load();
        const QByteArray bytes("\x02REQ\x00\xff\x03", 7);
        post(request(van, bytes));
        devsim::ScriptedTerminal *expected = std::array{kicc.get(), kis.get(), smartro.get()}[terminal];
        QVERIFY(waitUntil(
            [&] {
                return !expected->connections().isEmpty() &&
                       expected->connections().first().received == bytes;
            },
            3000));
        QCOMPARE(connectionCount(), 1);
    }

    void mixedCaseOrUnknownVanSendsNothing_data() {
        QTest::addColumn<QVariant>("van");
        QTest::newRow("Kis") << QVariant("Kis");
        QTest::newRow("kIS") << QVariant("kIS");
        QTest::newRow("Kicc") << QVariant("Kicc");
        QTest::newRow("Smartro") << QVariant("Smartro");
        QTest::newRow("KIS with a blank") << QVariant("KIS ");
        QTest::newRow("empty") << QVariant("");
        QTest::newRow("absent") << QVariant::fromValue(nullptr);
        QTest::newRow("number") << QVariant(5);
    }
    void mixedCaseOrUnknownVanSendsNothing() {
        QFETCH(QVariant, van);
        load();
        post(request(van, "\x02REQ\x03"));
        QVERIFY(probeReachesKis());
        QCOMPARE(connectionCount(), 1); // the probe's
        QCOMPARE(kis->connections().first().received, QByteArray("\x02PROBE\x03"));
        QVERIFY(!title.background.has_value()); // not a deselect either
        QCOMPARE(channelLines(), QStringList());
    }

    void dispatcherPrintsTheRequestTypeAndVan() {
        load();
        post(request("Kis", "", 7));
        QCOMPARE(capture->lines(), QStringList{R"(TCP request: requesttype "", van "Kis")"});
    }

    void usbTakingOverNeverOpensASocket() {
        load();
        ipField.editable = true;
        ipField.enabled = true;
        controller->otherInterfaceChosen();
        QCOMPARE(title.background, std::optional<Rgba>(PageColor::deselectedGrey));
        QCOMPARE(title.text, std::optional<Rgba>(PageColor::selectedBlue));
        QCOMPARE(ipField.editable, std::optional<bool>(false));
        QCOMPARE(ipField.enabled, std::optional<bool>(false));
        QVERIFY(probeReachesKis());
        QCOMPARE(connectionCount(), 1); // the probe's
        QCOMPARE(kis->connections().first().received, QByteArray("\x02PROBE\x03"));
        QVERIFY(UserDefaults::standard().value("MAIN_INTERFACE") == std::nullopt); // only the look changes
    }

    void requestNamingNoVendorChangesNothing() {
        load();
        post(request("", ""));
        post(request("", "", "msg"));
        QVERIFY(!title.background.has_value());
        QVERIFY(!ipField.enabled.has_value());
    }

    // ---- what goes on the wire

    void printTextIsSentInCodePage949() {
        load();
        post(request("KICC", QStringLiteral("영수증 테스트\n").toUtf8(), "print"));
        QVERIFY(waitUntil([&] { return kicc->closedCount() == 1; }, 3000));
        QCOMPARE(kicc->connections().first().received, QByteArray::fromHex("bfb5bcf6c1f520c5d7bdbac6ae0a"));
    }

    void printTextThatIsNotUtf8IsNotSent_data() {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("not UTF-8") << QByteArray("\xff\xfe", 2);
        QTest::newRow("cut inside its last character") << QStringLiteral("영수증 테스트").toUtf8().chopped(1);
    }
    void printTextThatIsNotUtf8IsNotSent() {
        QFETCH(QByteArray, text);
        load();
        post(request("SMARTRO", text, "print"));
        QVERIFY(waitUntil([&] { return !channelLines().isEmpty(); }, 3000));
        QVERIFY(probeReachesKis());
        QCOMPARE(connectionCount(), 1); // the probe's
        QCOMPARE(kis->connections().first().received, QByteArray("\x02PROBE\x03"));
        QCOMPARE(channelLines().size(), 1);
        QVERIFY(channelLines().first().contains("not sent"));
    }

    void paymentBytesAreSentUnchanged() {
        load();
        QByteArray all;
        for (int i = 0; i < 256; ++i)
            all.append(static_cast<char>(i));
        post(request("KICC", all));
        QVERIFY(waitUntil([&] { return kicc->closedCount() == 1; }, 3000));
        QCOMPARE(kicc->connections().first().received, all);
    }

    void invalidOrMissingTerminalAddressDropsTheRequestSilently_data() {
        QTest::addColumn<QString>("ip");
        QTest::newRow("missing") << QString();
        QTest::newRow("leading zero") << "127.0.0.01";
        QTest::newRow("out of range") << "256.1.1.1";
        QTest::newRow("host name") << "localhost";
    }
    void invalidOrMissingTerminalAddressDropsTheRequestSilently() {
        QFETCH(QString, ip);
        if (ip.isNull())
            UserDefaults::standard().remove("TCP_IP");
        else
            UserDefaults::standard().setValue("TCP_IP", ip);
        load();
        post(request("KIS", "\x02PAY\x03"));
        post(request("KICC", "\x02PAY\x03"));
        post(request("SMARTRO", "\x02PAY\x03"));
        keepRunningFor(1200);
        QCOMPARE(connectionCount(), 0);
        QCOMPARE(channelLines(), QStringList());
    }

    void refusedConnectionPrintsOneErrorLine() {
        load();
        const quint16 port = kis->port();
        kis.reset(); // nothing listens there any more
        post(request("KIS", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return channelLines().size() == 1; }, 3000));
        QVERIFY(exchangesEnd());
        QCOMPARE(channelLines().size(), 1);
        QVERIFY2(channelLines().first().contains(QStringLiteral("127.0.0.1:%1").arg(port)),
                 qPrintable(channelLines().first()));
        QVERIFY(channelLines().first().contains("refused", Qt::CaseInsensitive));
        QCOMPARE(answers.size(), 0);
        kis = std::make_unique<devsim::ScriptedTerminal>(); // for cleanup
    }

    void connectThatNeverCompletesEndsAfterOneSecond() {
        devsim::SwitchedOffDevice dead;
        QVERIFY(dead.open());
        load();
        controller->senders = VendorSenders({dead.port(), dead.port(), dead.port()});
        QElapsedTimer clock;
        clock.start();
        post(request("SMARTRO", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return channelLines().size() == 1; }, 3000));
        QVERIFY2(clock.elapsed() >= 900 && clock.elapsed() <= 1600,
                 qPrintable(QString::number(clock.elapsed())));
        QVERIFY2(channelLines().first().contains("timed out"), qPrintable(channelLines().first()));
    }

    // ---- KICC

    void kiccReplyIsDiscardedAndTheConnectionClosed() {
        kicc->setScript(
            {devsim::ScriptedTerminal::awaitBytes(5), devsim::ScriptedTerminal::reply("\x06RECEIVED")});
        load();
        post(request("KICC", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return kicc->closedCount() == 1; }, 3000));
        const auto &c = kicc->connections().first();
        QVERIFY2(c.closedAtMs - c.replySentAtMs.first() < 500, qPrintable(QString::number(c.closedAtMs)));
        QVERIFY(exchangesEnd());
        QCOMPARE(answers.size(), 0);
        QCOMPARE(channelLines(), QStringList());
    }

    void silentKiccTerminalIsLeftAfterOneSecond() {
        load();
        post(request("KICC", "\x02PAY\x03"));
        const QString problem = closedAboutOneSecondAfterTheRequest(*kicc);
        QVERIFY2(problem.isEmpty(), qPrintable(problem));
        QCOMPARE(channelLines(), QStringList());
    }

    // ---- KIS

    void kisAnswerWithHangulReachesThePos() {
        kis->setScript({devsim::ScriptedTerminal::awaitBytes(5), devsim::ScriptedTerminal::reply("\x06"),
                        devsim::ScriptedTerminal::reply(QByteArray("\x02"
                                                                   "AB") +
                                                            cp(QStringLiteral("승인 완료 1234")) + '\x03',
                                                        200)});
        load();
        post(request("KIS", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, 3000));
        QCOMPARE(answers.first(), answer(QStringLiteral("승인 완료 1234"), "KIS7430"));
        QVERIFY(waitUntil([&] { return kis->closedCount() == 1; }, 2000));
        QCOMPARE(channelLines(), QStringList());
    }

    // ---- answers the network cuts into pieces (Wi-Fi, small switches)

    void kisAnswerInPiecesReachesThePosWhole_data() {
        QTest::addColumn<QList<qsizetype>>("cuts");
        QTest::addColumn<int>("gapMs");
        // STX "AB", then 승인 완료 1234 (승 is bytes 3-4, 인 5-6, 완 8-9), then ETX
        QTest::newRow("2 pieces, no pause") << QList<qsizetype>{7} << 0;
        QTest::newRow("2 pieces, cut inside a character") << QList<qsizetype>{4} << 150;
        QTest::newRow("3 pieces, cut inside characters") << QList<qsizetype>{4, 9} << 100;
        QTest::newRow("3 pieces, 200 ms apart") << QList<qsizetype>{2, 10} << 200;
        QTest::newRow("ETX on its own") << QList<qsizetype>{17} << 120;
        QList<qsizetype> everyByte;
        for (qsizetype i = 1; i < 18; ++i)
            everyByte << i;
        QTest::newRow("every byte a piece") << everyByte << 15;
    }
    void kisAnswerInPiecesReachesThePosWhole() {
        QFETCH(QList<qsizetype>, cuts);
        QFETCH(int, gapMs);
        const QByteArray result = devsim::kisResultFrame(cp(QStringLiteral("승인 완료 1234")));
        QCOMPARE(result.size(), 18);
        kis->setScript({devsim::ScriptedTerminal::awaitBytes(5), devsim::ScriptedTerminal::reply("\x06"),
                        devsim::ScriptedTerminal::reply(result, 100, devsim::Pieces::at(cuts, gapMs))});
        load();
        payAndExpectTheKisAnswer(QStringLiteral("승인 완료 1234"), 3000 + 18 * gapMs);
    }

    void kisAcknowledgementAndResultInOnePieceAreTwoReplies_data() {
        QTest::addColumn<QList<QByteArray>>("replies");
        const QByteArray result = devsim::kisResultFrame(cp(QStringLiteral("승인 완료 1234")));
        QTest::newRow("ACK and the whole result") << QList<QByteArray>{"\x06" + result};
        QTest::newRow("ACK and the start of the result")
            << QList<QByteArray>{"\x06" + result.left(4), result.mid(4)};
    }
    void kisAcknowledgementAndResultInOnePieceAreTwoReplies() {
        QFETCH(QList<QByteArray>, replies);
        QList<devsim::ScriptedTerminal::Step> script{devsim::ScriptedTerminal::awaitBytes(5)};
        for (const QByteArray &reply : replies)
            script << devsim::ScriptedTerminal::reply(reply, script.size() == 1 ? 0 : 100);
        kis->setScript(script);
        load();
        // Within seconds, not 300 s: the result was there all along.
        payAndExpectTheKisAnswer(QStringLiteral("승인 완료 1234"), 3000);
    }

    void smartroRepliesInPiecesAreEachAcknowledgedOnceWhole_data() {
        QTest::addColumn<QList<qsizetype>>("cuts");
        QTest::addColumn<int>("gapMs");
        // DLE, then 정상승인 5000원 (정 is bytes 1-2)
        QTest::newRow("2 pieces, cut inside a character") << QList<qsizetype>{2} << 100;
        QTest::newRow("3 pieces, 200 ms apart") << QList<qsizetype>{1, 6} << 200;
        QTest::newRow("4 pieces, no pause") << QList<qsizetype>{3, 5, 9} << 0;
    }
    void smartroRepliesInPiecesAreEachAcknowledgedOnceWhole() {
        QFETCH(QList<qsizetype>, cuts);
        QFETCH(int, gapMs);
        const QByteArray cardRead("\x02"
                                  "CARD READ\x03");
        const QByteArray dleReply = QByteArray("\x10") + cp(QStringLiteral("정상승인 5000원"));
        using T = devsim::ScriptedTerminal;
        smartro->setScript({T::awaitBytes(5), T::reply("\x06"),
                            T::reply(cardRead, 50, devsim::Pieces::at(cuts, gapMs)), T::awaitBytes(8),
                            T::reply(dleReply, 50, devsim::Pieces::at(cuts, gapMs)), T::awaitBytes(11)});
        load();
        post(request("SMARTRO", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, 5000));
        QCOMPARE(answers.first(),
                 answer(QString(QChar(0x10)) + QStringLiteral("정상승인 5000원"), "SMT-T263"));
        QVERIFY(waitUntil([&] { return smartro->closedCount() == 1; }, 2000));
        // One acknowledgement per reply, not per piece.
        QCOMPARE(smartro->connections().first().received, QByteArray("\x02PAY\x03") + QByteArray(6, '\x06'));
        QCOMPARE(channelLines(), (QStringList{"ack success", "ack success", "DLE COMES!"}));
    }

    void listenerAnswerInPiecesReachesThePosWhole_data() {
        QTest::addColumn<bool>("smartroListener");
        QTest::addColumn<QList<qsizetype>>("cuts");
        QTest::addColumn<int>("gapMs");
        // STX "0000", then 정상승인 금액 15000원 (정 is bytes 5-6), then ETX "00"
        QTest::newRow("KICC, 2 pieces, cut inside a character") << false << QList<qsizetype>{6} << 100;
        QTest::newRow("KICC, 3 pieces, 200 ms apart") << false << QList<qsizetype>{3, 14} << 200;
        QTest::newRow("KICC, the ending cut off") << false << QList<qsizetype>{27, 28} << 150;
        QTest::newRow("SMARTRO, 2 pieces, no pause") << true << QList<qsizetype>{10} << 0;
        QTest::newRow("SMARTRO, 5 pieces") << true << QList<qsizetype>{1, 5, 6, 20, 27} << 60;
    }
    void listenerAnswerInPiecesReachesThePosWhole() {
        QFETCH(bool, smartroListener);
        QFETCH(QList<qsizetype>, cuts);
        QFETCH(int, gapMs);
        load();
        const TerminalListener *listener =
            smartroListener ? controller->smartroListener() : controller->kiccListener();
        const QByteArray frame = devsim::listenerFrame(cp(QStringLiteral("정상승인 금액 15000원")));
        QCOMPARE(frame.size(), 29);
        devsim::AnswerCall terminal{QHostAddress::LocalHost,
                                    listener->serverPort(),
                                    frame,
                                    devsim::AnswerCall::Ending::WaitForListener,
                                    nullptr,
                                    devsim::Pieces::at(cuts, gapMs)};
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, 3000));
        QCOMPARE(answers.first(), answer(QStringLiteral("정상승인 금액 15000원"),
                                         smartroListener ? "SMT-T263" : "TS-132N:TS-167"));
        // The listener let go once it had the whole frame.
        QVERIFY(waitUntil([&] { return terminal.isFinished(); }, 3000));
        QVERIFY(terminal.closedByListener());
        QVERIFY(!channelLines().contains("euc failed"));
    }

    void listenerFrameWithAnotherEndingIsTakenOnceTheTerminalPauses() {
        load();
        // Framing bytes of another make: no ETX three from the end. The frame is whole when
        // the terminal stops sending, even if it keeps the line open.
        devsim::AnswerCall terminal{QHostAddress::LocalHost,
                                    controller->kiccListener()->serverPort(),
                                    "#####" + cp(QStringLiteral("승인")) + "###",
                                    devsim::AnswerCall::Ending::WaitForListener,
                                    nullptr,
                                    devsim::Pieces::at({7}, 150)};
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, 3000));
        QCOMPARE(answers.first(), answer(QStringLiteral("승인"), "TS-132N:TS-167"));
        QVERIFY(waitUntil([&] { return terminal.isFinished(); }, 3000));
        QVERIFY(terminal.closedByListener());
    }

    void listenerAnswerOver1024BytesInPiecesIsCutFromItsFirst1024() {
        load();
        const QByteArray frame = "HEAD:" + QByteArray(1500, 'x');
        devsim::AnswerCall terminal{QHostAddress::LocalHost,
                                    controller->kiccListener()->serverPort(),
                                    frame,
                                    devsim::AnswerCall::Ending::WaitForListener,
                                    nullptr,
                                    devsim::Pieces::at({300, 700, 1100}, 50)};
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, 3000));
        QCOMPARE(answers.first(), answer(QString(1024 - 5 - 3, u'x'), "TS-132N:TS-167"));
    }

    void kisPrintEndsWithTheFirstReply() {
        kis->setScript({devsim::ScriptedTerminal::awaitBytes(1), devsim::ScriptedTerminal::reply("\x06"),
                        devsim::ScriptedTerminal::reply("\x02"
                                                        "ABLATE\x03",
                                                        300)});
        load();
        post(request("kis", "SLIP\n", "print"));
        QVERIFY(waitUntil([&] { return kis->closedCount() == 1; }, 3000));
        const auto &c = kis->connections().first();
        QVERIFY(c.closedAtMs - c.replySentAtMs.first() < 250);
        QVERIFY(exchangesEnd());
        QCOMPARE(answers.size(), 0);
    }

    void kisRequestWithDleAtIndexTwoNeverWaits() {
        kis->setScript({devsim::ScriptedTerminal::awaitBytes(4), devsim::ScriptedTerminal::reply("\x06"),
                        devsim::ScriptedTerminal::reply("\x02"
                                                        "ABLATE\x03",
                                                        300)});
        load();
        post(request("KIS", QByteArray("\x02"
                                       "A\x10"
                                       "B",
                                       4)));
        QVERIFY(waitUntil([&] { return kis->closedCount() == 1; }, 3000));
        QVERIFY(kis->connections().first().closedAtMs - kis->connections().first().replySentAtMs.first() <
                250);
        QVERIFY(exchangesEnd());
        QCOMPARE(answers.size(), 0);
    }

    void kisRequestWithDleAtIndexTwoAndNoReplyEndsAfterOneSecond() {
        load();
        post(request("KIS", QByteArray("\x02"
                                       "A\x10"
                                       "B",
                                       4)));
        const QString problem = closedAboutOneSecondAfterTheRequest(*kis);
        QVERIFY2(problem.isEmpty(), qPrintable(problem));
    }

    void kisWaitForTheCustomerDoesNotEndEarly() {
        // Longer than every other wait of the channel; the 300 s itself is not sat out.
        kis->setScript({devsim::ScriptedTerminal::awaitBytes(5), devsim::ScriptedTerminal::reply("\x06"),
                        devsim::ScriptedTerminal::reply("\x02"
                                                        "ABPAID\x03",
                                                        6500)});
        load();
        post(request("KIS", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, 10000));
        QCOMPARE(answers.first(), answer("PAID", "KIS7430"));
        // The terminal learns of the hang-up a moment after the service has the answer.
        QVERIFY(waitUntil([&] { return kis->closedCount() == 1; }, 3000));
        const auto &c = kis->connections().first();
        QVERIFY(c.closedAtMs >= c.replySentAtMs.last()); // open until the answer came
        QCOMPARE(channelLines(), QStringList());
    }

    void kisWithoutFirstReplyStillWaitsForTheAnswer() {
        kis->setScript({devsim::ScriptedTerminal::awaitBytes(5), devsim::ScriptedTerminal::reply("\x02"
                                                                                                 "ABPAID\x03",
                                                                                                 2000)});
        load();
        post(request("KIS", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, 5000));
        QCOMPARE(answers.first(), answer("PAID", "KIS7430"));
    }

    void kisAcknowledgementInsteadOfAnAnswerEndsQuietly() {
        kis->setScript({devsim::ScriptedTerminal::awaitBytes(5), devsim::ScriptedTerminal::reply("\x15"),
                        devsim::ScriptedTerminal::reply("\x06"
                                                        "ABCDEF",
                                                        200)});
        load();
        post(request("KIS", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return kis->closedCount() == 1; }, 3000));
        QVERIFY(exchangesEnd());
        QCOMPARE(answers.size(), 0);
        QCOMPARE(channelLines(), QStringList());
    }

    void kisAnswerOfFourBytesIsAnEmptyAnswer() {
        kis->setScript({devsim::ScriptedTerminal::awaitBytes(5), devsim::ScriptedTerminal::reply("\x06"),
                        devsim::ScriptedTerminal::reply("\x02"
                                                        "AB\x03",
                                                        200)});
        load();
        post(request("KIS", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, 3000));
        QCOMPARE(answers.first(), answer("", "KIS7430"));
    }

    void kisAnswerThatIsNotCodePage949PrintsEucFailed() {
        kis->setScript({devsim::ScriptedTerminal::awaitBytes(5), devsim::ScriptedTerminal::reply("\x06"),
                        devsim::ScriptedTerminal::reply(QByteArray("\x02"
                                                                   "AB\xff\xff\x03",
                                                                   6),
                                                        200)});
        load();
        post(request("KIS", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return kis->closedCount() == 1; }, 3000));
        QCOMPARE(channelLines(), QStringList{"euc failed"});
        QCOMPARE(answers.size(), 0);
    }

    void kisTerminalHangingUpWhileTheCustomerIsThereEndsQuietly() {
        kis->setScript({devsim::ScriptedTerminal::awaitBytes(5), devsim::ScriptedTerminal::reply("\x06"),
                        devsim::ScriptedTerminal::hangUp(300)});
        load();
        post(request("KIS", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return kis->closedCount() == 1; }, 3000));
        QVERIFY(exchangesEnd());
        QCOMPARE(answers.size(), 0);
        QCOMPARE(channelLines(), QStringList());
    }

    void kisAnswerWaitThatRunsOutEndsQuietly() {
        kis->setScript({devsim::ScriptedTerminal::awaitBytes(5), devsim::ScriptedTerminal::reply("\x06")});
        ExchangeTimings shortWait;
        shortWait.kisAnswerMs = 500;
        load(shortWait);
        post(request("KIS", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return kis->closedCount() == 1; }, 3000));
        QCOMPARE(answers.size(), 0);
        QCOMPARE(channelLines(), QStringList());
    }

    // ---- SMARTRO

    void smartroSilenceAfterTheRequestPrintsFirstResponseNotComes() {
        load();
        post(request("SMARTRO", "\x02PAY\x03"));
        const QString problem = closedAboutOneSecondAfterTheRequest(*smartro);
        QVERIFY2(problem.isEmpty(), qPrintable(problem));
        QCOMPARE(smartro->connections().first().received, QByteArray("\x02PAY\x03")); // no acknowledgement
        QCOMPARE(channelLines(), QStringList{"FIRST RESPONSE NOT COMES!"});
    }

    void smartroSilenceAfterTheFirstReplyTimesOutAfterFiveSeconds() {
        smartro->setScript(
            {devsim::ScriptedTerminal::awaitBytes(5), devsim::ScriptedTerminal::reply("\x06")});
        load();
        post(request("SMARTRO", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return smartro->closedCount() == 1; }, 9000));
        const auto &c = smartro->connections().first();
        const qint64 waited = c.closedAtMs - c.replySentAtMs.first();
        QVERIFY2(waited >= 4500 && waited <= 6500, qPrintable(QString::number(waited)));
        QCOMPARE(c.received, QByteArray("\x02PAY\x03")); // the first reply is never acknowledged
        QCOMPARE(channelLines(), QStringList{"TIME OUT OCCURED!"});
        QCOMPARE(answers.size(), 0);
    }

    void smartroAcknowledgesEveryReplyAfterTheFirstBeforeLookingAtIt() {
        const QByteArray dle = QByteArray("\x10") + cp(QStringLiteral("승인"));
        smartro->setScript(
            {devsim::ScriptedTerminal::awaitBytes(5), devsim::ScriptedTerminal::reply("ONE", 50),
             devsim::ScriptedTerminal::reply("TWO", 300), devsim::ScriptedTerminal::awaitBytes(8),
             devsim::ScriptedTerminal::reply("THREE", 100), devsim::ScriptedTerminal::awaitBytes(11),
             devsim::ScriptedTerminal::reply(dle, 100), devsim::ScriptedTerminal::awaitBytes(14)});
        load();
        post(request("SMARTRO", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, 5000));
        QCOMPARE(answers.first(), answer(QString(QChar(0x10)) + QStringLiteral("승인"), "SMT-T263"));
        QVERIFY(waitUntil([&] { return smartro->closedCount() == 1; }, 2000));
        QCOMPARE(smartro->connections().first().received, QByteArray("\x02PAY\x03") + QByteArray(9, '\x06'));
        QCOMPARE(channelLines(), (QStringList{"ack success", "ack success", "ack success", "DLE COMES!"}));
    }

    void smartroFirstReplyStartingWithDleIsNotTheAnswer() {
        smartro->setScript({devsim::ScriptedTerminal::awaitBytes(5),
                            devsim::ScriptedTerminal::reply("\x10"
                                                            "FIRST"),
                            devsim::ScriptedTerminal::reply("\x10"
                                                            "SECOND",
                                                            300),
                            devsim::ScriptedTerminal::awaitBytes(8)});
        load();
        post(request("SMARTRO", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, 5000));
        QCOMPARE(answers.first(), answer(QString(QChar(0x10)) + "SECOND", "SMT-T263"));
        QCOMPARE(channelLines(), (QStringList{"ack success", "DLE COMES!"}));
    }

    void smartroTerminalHangingUpEndsWithTimeOutAtOnce() {
        smartro->setScript({devsim::ScriptedTerminal::awaitBytes(5), devsim::ScriptedTerminal::reply("\x06"),
                            devsim::ScriptedTerminal::hangUp(100)});
        // With a reply wait of a minute, a line within seconds can only be the hang-up's.
        ExchangeTimings longWait;
        longWait.smartroReplyMs = 60'000;
        load(longWait);
        post(request("SMARTRO", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return channelLines().size() == 1; }, 5000));
        QCOMPARE(channelLines(), QStringList{"TIME OUT OCCURED!"});
    }

    void smartroDleReplyThatIsNotCodePage949PrintsEucFailed() {
        smartro->setScript({devsim::ScriptedTerminal::awaitBytes(5), devsim::ScriptedTerminal::reply("\x06"),
                            devsim::ScriptedTerminal::reply(QByteArray("\x10\xff\xff", 3), 100),
                            devsim::ScriptedTerminal::awaitBytes(8)});
        load();
        post(request("SMARTRO", "\x02PAY\x03"));
        QVERIFY(waitUntil([&] { return channelLines().size() == 3; }, 3000));
        QCOMPARE(channelLines(), (QStringList{"ack success", "DLE COMES!", "euc failed"}));
        keepRunningFor(200);
        QCOMPARE(answers.size(), 0);
    }

    // ---- the connection test

    void connectionTestSendsTheTestTextToTheChosenVendor_data() {
        QTest::addColumn<QString>("vendor");
        QTest::addColumn<int>("terminal");
        QTest::addColumn<QByteArray>("bytes");
        const QByteArray korean = cp(QStringLiteral("    테라노소프트 테스트 문자\n\n\n"));
        QTest::newRow("KICC") << "KICC" << 0 << korean;
        QTest::newRow("KIS") << "KIS" << 1 << korean;
        QTest::newRow("SMARTRO") << "SMARTRO" << 2 << QByteArray("SMARTRO test print");
    }
    void connectionTestSendsTheTestTextToTheChosenVendor() {
        QFETCH(QString, vendor);
        QFETCH(int, terminal);
        QFETCH(QByteArray, bytes);
        UserDefaults::standard().setValue("TCP_DEVICE", vendor);
        kis->setScript(
            {devsim::ScriptedTerminal::awaitBytes(bytes.size()), devsim::ScriptedTerminal::reply("\x06")});
        load();
        controller->connectionTestClicked();
        devsim::ScriptedTerminal *expected = std::array{kicc.get(), kis.get(), smartro.get()}[terminal];
        QVERIFY(waitUntil([&] { return expected->closedCount() == 1; }, 3000));
        QCOMPARE(expected->connections().first().received, bytes);
        QCOMPARE(connectionCount(), 1);
        if (vendor == "KIS") // a print job: the first reply ends it, no waiting for a customer
            QVERIFY(kis->connections().first().closedAtMs - kis->connections().first().replySentAtMs.first() <
                    250);
    }

    // ---- the page

    void firstLoadStoresKiccAndSelectsIt() {
        load();
        QCOMPARE(UserDefaults::standard().string("TCP_DEVICE"), std::optional<QString>("KICC"));
        QCOMPARE(popup.selected, 0);
        QCOMPARE(popup.titles, (QStringList{"KICC", "KIS", "SMARTRO"}));
        QCOMPARE(ipField.value, QStringLiteral("127.0.0.1"));
    }

    void storedVendorIsSelectedAtLoad() {
        UserDefaults::standard().setValue("TCP_DEVICE", "SMARTRO");
        load();
        QCOMPARE(popup.selected, 2);
        QCOMPARE(UserDefaults::standard().string("TCP_DEVICE"), std::optional<QString>("SMARTRO"));
    }

    void choosingAVendorStoresItsTitle() {
        load();
        popup.selected = 1;
        controller->deviceTypeChanged();
        QCOMPARE(UserDefaults::standard().string("TCP_DEVICE"), std::optional<QString>("KIS"));
        QCOMPARE(capture->lines(), QStringList{"TCP_DEVICE: KIS"});
    }

    void ipIsStoredOnEnterOnlyWhenItIsAnIPv4Address_data() {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("stored");
        QTest::newRow("leading zero") << "192.168.0.01"
                                      << "127.0.0.1";
        QTest::newRow("all ones") << "255.255.255.255"
                                  << "255.255.255.255";
        QTest::newRow("out of range") << "256.1.1.1"
                                      << "127.0.0.1";
        QTest::newRow("shop terminal") << "192.168.0.10"
                                       << "192.168.0.10";
        QTest::newRow("three parts") << "192.168.0"
                                     << "127.0.0.1";
        QTest::newRow("blank") << " 10.0.0.1"
                               << "127.0.0.1";
    }
    void ipIsStoredOnEnterOnlyWhenItIsAnIPv4Address() {
        QFETCH(QString, typed);
        QFETCH(QString, stored);
        load();
        ipField.value = typed;
        controller->ipTextfieldEnter();
        QCOMPARE(UserDefaults::standard().string("TCP_IP"), std::optional<QString>(stored));
    }

    void clickingTheTitleMakesTcpTheActiveInterface() {
        UserDefaults::standard().setValue("MAIN_INTERFACE", "USB");
        UserDefaults::standard().setValue("TCP_IP", "192.168.0.10");
        load();
        ipField.value.clear();
        ipField.enabled = false;
        ipField.editable = false;
        controller->titleLabelClicked();
        QCOMPARE(UserDefaults::standard().string("MAIN_INTERFACE"), std::optional<QString>("TCP"));
        QCOMPARE(interfaceChosen, 1);
        QCOMPARE(ipField.value, QStringLiteral("192.168.0.10"));
        QCOMPARE(ipField.enabled, std::optional<bool>(true));
        QCOMPARE(ipField.editable, std::optional<bool>(true));
        QCOMPARE(title.background, std::optional<Rgba>(PageColor::selectedBlue));
        QCOMPARE(title.text, std::optional<Rgba>(PageColor::white));
        controller->titleLabelClicked(); // again: said again
        QCOMPARE(interfaceChosen, 2);
    }

    void appearingPaintsTheTitleOnlyWhenTcpIsActive() {
        UserDefaults::standard().setValue("MAIN_INTERFACE", "USB");
        load();
        controller->viewDidAppear();
        QVERIFY(!title.background.has_value());
        UserDefaults::standard().setValue("MAIN_INTERFACE", "TCP");
        controller->viewDidAppear();
        QCOMPARE(title.background, std::optional<Rgba>(PageColor::selectedBlue));
        QCOMPARE(title.text, std::optional<Rgba>(PageColor::white));
    }

    // ---- the answer listeners

    void listenersStartAndSayServiceStartComplete() {
        load();
        QVERIFY(controller->kiccListener() && controller->smartroListener());
        QCOMPARE(controller->kiccListener()->serverAddress(), QHostAddress(QHostAddress::LocalHost));
        QCOMPARE(kiccLabel.text, QStringLiteral("서비스 시작 완료"));
        QCOMPARE(kiccLabel.color, std::optional<Qt::GlobalColor>(Qt::green));
        QCOMPARE(smartroLabel.text, QStringLiteral("서비스 시작 완료"));
        QCOMPARE(smartroLabel.color, std::optional<Qt::GlobalColor>(Qt::green));
        QCOMPARE(capture->lines(), QStringList());
    }

    void listenersBindTheFirstAddressOfTheLookup() {
        controller = std::make_unique<TCPViewController>();
        QObject::connect(controller.get(), &TerminalChannel::answerReady,
                         [this](const TerminalAnswer &a) { answers << a; });
        QObject::connect(
            &Settings::shared(), &Settings::interfaceChosen, controller.get(),
            [this](Settings::Interface chosen) { interfaceChosen += chosen == Settings::Interface::Tcp; });
        controller->localAddressLookup = [] { return QStringList{"127.0.0.2", "127.0.0.1"}; };
        controller->kiccAnswerPort = 0;
        controller->smartroAnswerPort = 0;
        controller->viewDidLoad();
        QCOMPARE(controller->kiccListener()->serverAddress(), QHostAddress("127.0.0.2"));
        QCOMPARE(controller->smartroListener()->serverAddress(), QHostAddress("127.0.0.2"));
        QTcpSocket other;
        other.connectToHost(QHostAddress::LocalHost, controller->kiccListener()->serverPort());
        QVERIFY(!other.waitForConnected(1000)); // bound to one address only
    }

    void takenPortLeavesThatListenerDownAndTheOtherUp() {
        QTcpServer squatter;
        QVERIFY(squatter.listen(QHostAddress::LocalHost));
        controller = std::make_unique<TCPViewController>();
        QObject::connect(controller.get(), &TerminalChannel::answerReady,
                         [this](const TerminalAnswer &a) { answers << a; });
        QObject::connect(
            &Settings::shared(), &Settings::interfaceChosen, controller.get(),
            [this](Settings::Interface chosen) { interfaceChosen += chosen == Settings::Interface::Tcp; });
        controller->kiccLabel = &kiccLabel;
        controller->smartroLabel = &smartroLabel;
        controller->localAddressLookup = [] { return QStringList{"127.0.0.1"}; };
        controller->kiccAnswerPort = squatter.serverPort();
        controller->smartroAnswerPort = 0;
        controller->viewDidLoad();
        QVERIFY(!controller->kiccListener());
        QVERIFY(controller->smartroListener());
        QCOMPARE(kiccLabel.text, QString());
        QCOMPARE(smartroLabel.text, QStringLiteral("서비스 시작 완료"));
        QCOMPARE(capture->lines().size(), 1);
        QVERIFY2(capture->lines().first().contains(QString::number(squatter.serverPort())),
                 qPrintable(capture->lines().first()));
    }

    void noUsableInterfaceAddressIsAFatalStop() {
        const ChildOutcome outcome = runInChild([] {
            TCPViewController lonely;
            lonely.localAddressLookup = [] { return QStringList(); };
            lonely.kiccAnswerPort = 0;
            lonely.smartroAnswerPort = 0;
            lonely.viewDidLoad();
        });
        QVERIFY(outcome.exitedNormally);
        QVERIFY(outcome.exitCode != 0);
        QVERIFY2(outcome.standardError.startsWith("fatal: "), outcome.standardError.constData());
        QCOMPARE(outcome.standardError.count('\n'), 1);
    }

    void frameOfNineBytesYieldsAOneByteAnswer() {
        load();
        QVERIFY(deliverToListener(controller->kiccListener(), "12345X678"));
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, 3000));
        QCOMPARE(answers.first(), answer("X", "TS-132N:TS-167"));
    }

    void frameOfEightBytesYieldsAnEmptyAnswer() {
        load();
        QVERIFY(deliverToListener(controller->smartroListener(), "12345678"));
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, 3000));
        QCOMPARE(answers.first(), answer("", "SMT-T263"));
        QCOMPARE(capture->lines(), QStringList{"Client Comes!"});
    }

    void answerLongerThan1024BytesIsCutFromItsFirst1024() {
        load();
        const QByteArray frame = "HEAD:" + QByteArray(1500, 'x');
        QVERIFY(deliverToListener(controller->kiccListener(), frame));
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, 3000));
        QCOMPARE(answers.first(), answer(QString(1024 - 5 - 3, u'x'), "TS-132N:TS-167"));
    }

    void listenerAnswerWithHangul() {
        load();
        QVERIFY(deliverToListener(controller->smartroListener(), "\x02"
                                                                 "0123" +
                                                                     cp(QStringLiteral("카드 승인")) +
                                                                     "\x03"
                                                                     "XY"));
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, 3000));
        QCOMPARE(answers.first(), answer(QStringLiteral("카드 승인"), "SMT-T263"));
    }

    void listenerAnswerThatIsNotCodePage949PrintsEucFailed() {
        load();
        QVERIFY(deliverToListener(controller->kiccListener(), QByteArray("12345\xff\xff"
                                                                         "678",
                                                                         10)));
        QVERIFY(waitUntil([&] { return capture->lines().size() == 1; }, 3000));
        QCOMPARE(capture->lines(), QStringList{"euc failed"});
        keepRunningFor(200);
        QCOMPARE(answers.size(), 0);
    }

    void terminalThatHangsUpWithoutAWordDeliversAnEmptyAnswer() {
        load();
        devsim::AnswerCall terminal{QHostAddress::LocalHost,
                                    controller->kiccListener()->serverPort(),
                                    {},
                                    devsim::AnswerCall::Ending::StaySilent};
        QVERIFY(waitUntil([&] { return terminal.isConnected(); }, 2000));
        terminal.hangUp();
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, 3000));
        QCOMPARE(answers.first(), answer("", "TS-132N:TS-167"));
    }

    void silentConnectionHoldsUpNoOtherAnswer() {
        load();
        devsim::AnswerCall silent{QHostAddress::LocalHost,
                                  controller->kiccListener()->serverPort(),
                                  {},
                                  devsim::AnswerCall::Ending::StaySilent};
        QVERIFY(waitUntil([&] { return silent.isConnected(); }, 2000));
        QVERIFY(deliverToListener(controller->kiccListener(), "12345OK678"));
        QVERIFY(waitUntil([&] { return answers.size() == 1; }, 3000));
        QCOMPARE(answers.first(), answer("OK", "TS-132N:TS-167"));
        QVERIFY(!silent.isFinished());
    }

    void everyConnectionCarriesOneAnswer() {
        load();
        for (int i = 0; i < 3; ++i)
            QVERIFY(
                deliverToListener(controller->smartroListener(), "12345" + QByteArray::number(i) + "678"));
        QVERIFY(waitUntil([&] { return answers.size() == 3; }, 3000));
        QCOMPARE(answers[2], answer("2", "SMT-T263"));
        QCOMPARE(capture->lines(), (QStringList{"Client Comes!", "Client Comes!", "Client Comes!"}));
    }
};

QTEST_GUILESS_MAIN(TcpChannelTest)
#include "tst_tcpchannel.moc"
