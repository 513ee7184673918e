#include "stomp/stompframe.h"

#include <QTest>

using Command = STOMPFrame::CommandType;

Q_DECLARE_METATYPE(STOMPFrame::CommandType)

namespace {

// NUL ends every STOMP frame; QStringLiteral would keep it too, but spelling it out keeps
// the expectations readable.
QString withNul(const QString &text) {
    return text + QChar(u'\0');
}

// A literal's bytes with the NUL at its end kept.
template <qsizetype N> QByteArray bytes(const char (&literal)[N]) {
    return QByteArray(literal, N - 1);
}

} // namespace

class TestStompFrame : public QObject {
    Q_OBJECT
private slots:
    void commandTexts_data();
    void commandTexts();
    void commandOrdinals();
    void commandTextIsExact_data();
    void commandTextIsExact();

    void parsesCommandLine_data();
    void parsesCommandLine();
    void refusesCommandLine_data();
    void refusesCommandLine();
    void sendKeepsNeitherHeadersNorBody();

    void connectedFrame();
    void connectedFrameWithoutAttachment();
    void receiptFrame();
    void errorFrame();
    void messageFrame();
    void fixedPartsHaveTheirLengths();
};

void TestStompFrame::commandTexts_data() {
    QTest::addColumn<Command>("command");
    QTest::addColumn<QString>("text");
    QTest::newRow("connect") << Command::Connect << "CONNECT";
    QTest::newRow("disconnect") << Command::Disconnect << "DISCONNECT";
    QTest::newRow("send") << Command::Send << "SEND";
    QTest::newRow("subscribe") << Command::Subscribe << "SUBSCRIBE";
    QTest::newRow("unsubscribe") << Command::Unsubscribe << "UNSUBSCRIBE";
}

void TestStompFrame::commandTexts() {
    QFETCH(Command, command);
    QFETCH(QString, text);
    QCOMPARE(STOMPFrame::textOf(command), text);
    const std::optional<Command> back = STOMPFrame::commandFromText(text);
    QVERIFY(back.has_value());
    QCOMPARE(*back, command);
}

void TestStompFrame::commandOrdinals() {
    QCOMPARE(static_cast<int>(Command::Connect), 0);
    QCOMPARE(static_cast<int>(Command::Disconnect), 1);
    QCOMPARE(static_cast<int>(Command::Send), 2);
    QCOMPARE(static_cast<int>(Command::Subscribe), 3);
    QCOMPARE(static_cast<int>(Command::Unsubscribe), 4);
}

void TestStompFrame::commandTextIsExact_data() {
    QTest::addColumn<QString>("text");
    QTest::newRow("lower case") << "connect";
    QTest::newRow("mixed case") << "Subscribe";
    QTest::newRow("trailing blank") << "SEND ";
    QTest::newRow("leading blank") << " SEND";
    QTest::newRow("carriage return") << "DISCONNECT\r";
    QTest::newRow("prefix") << "UNSUB";
    QTest::newRow("longer") << "CONNECTED";
    QTest::newRow("empty") << "";
}

void TestStompFrame::commandTextIsExact() {
    QFETCH(QString, text);
    QVERIFY(!STOMPFrame::commandFromText(text).has_value());
}

void TestStompFrame::parsesCommandLine_data() {
    QTest::addColumn<QString>("text");
    QTest::addColumn<Command>("command");
    QTest::newRow("bare CONNECT") << "CONNECT" << Command::Connect;
    QTest::newRow("CONNECT and empty line") << "CONNECT\n" << Command::Connect;
    QTest::newRow("CONNECT frame with headers")
        << withNul("CONNECT\naccept-version:1.2\nhost:shop.example\n\n") << Command::Connect;
    QTest::newRow("DISCONNECT") << withNul("DISCONNECT\nreceipt:77\n\n") << Command::Disconnect;
    QTest::newRow("SUBSCRIBE") << withNul("SUBSCRIBE\nid:sub-0\ndestination:/topic/x\n\n")
                               << Command::Subscribe;
    QTest::newRow("UNSUBSCRIBE") << withNul("UNSUBSCRIBE\nid:sub-0\n\n") << Command::Unsubscribe;
    // Whatever follows the command line is not looked at, however odd it is.
    QTest::newRow("junk after the command line")
        << QStringLiteral("SEND\n\r\n:::\n\u00e9\u0000\u0000") << Command::Send;
}

void TestStompFrame::parsesCommandLine() {
    QFETCH(QString, text);
    QFETCH(Command, command);
    const std::optional<STOMPFrame> frame = STOMPFrame::parse(text);
    QVERIFY(frame.has_value());
    QCOMPARE(frame->command, command);
    QVERIFY(frame->headers.isEmpty());
    QVERIFY(!frame->body.has_value());
}

void TestStompFrame::refusesCommandLine_data() {
    QTest::addColumn<QString>("text");
    QTest::newRow("lower case") << withNul("connect\naccept-version:1.2\n\n");
    QTest::newRow("trailing blank") << withNul("CONNECT \naccept-version:1.2\n\n");
    QTest::newRow("carriage return before line feed") << withNul("CONNECT\r\naccept-version:1.2\r\n\r\n");
    QTest::newRow("STOMP") << withNul("STOMP\naccept-version:1.2\nhost:shop.example\n\n");
    QTest::newRow("ACK") << withNul("ACK\nid:12345\n\n");
    QTest::newRow("NACK") << withNul("NACK\nid:12345\n\n");
    QTest::newRow("BEGIN") << withNul("BEGIN\ntransaction:tx1\n\n");
    QTest::newRow("COMMIT") << withNul("COMMIT\ntransaction:tx1\n\n");
    QTest::newRow("ABORT") << withNul("ABORT\ntransaction:tx1\n\n");
    QTest::newRow("empty text") << "";
    QTest::newRow("empty first line") << withNul("\nCONNECT\n\n");
    QTest::newRow("NUL right after the command") << withNul("CONNECT");
}

void TestStompFrame::refusesCommandLine() {
    QFETCH(QString, text);
    QVERIFY(!STOMPFrame::parse(text).has_value());
}

void TestStompFrame::sendKeepsNeitherHeadersNorBody() {
    const std::optional<STOMPFrame> frame =
        STOMPFrame::parse(withNul("SEND\ndestination:/queue/a\ncontent-type:text/plain\n\nhello there"));
    QVERIFY(frame.has_value());
    QCOMPARE(frame->command, Command::Send);
    QVERIFY(frame->headers.isEmpty());
    QVERIFY(!frame->body.has_value());
}

void TestStompFrame::connectedFrame() {
    QCOMPARE(STOMPFrame::connected(QStringLiteral("s1"), QStringLiteral("abc")),
             withNul("CONNECTED\nversion:1.2\nsession=s1\nattachment:abc\n\n"));
}

void TestStompFrame::connectedFrameWithoutAttachment() {
    QCOMPARE(STOMPFrame::connected(QStringLiteral("s1"), std::nullopt),
             withNul("CONNECTED\nversion:1.2\nsession=s1\nattachment:\n\n"));
    // An empty attachment and no attachment read the same on the wire.
    QCOMPARE(STOMPFrame::connected(QStringLiteral("s1"), QString()),
             STOMPFrame::connected(QStringLiteral("s1"), std::nullopt));
}

void TestStompFrame::receiptFrame() {
    const QString frame = STOMPFrame::receipt();
    QCOMPARE(frame, withNul("RECEIPT\n\n"));
    QCOMPARE(frame.toUtf8(), bytes("RECEIPT\n\n\0"));
}

void TestStompFrame::errorFrame() {
    const QString frame = STOMPFrame::error();
    QCOMPARE(frame, withNul("ERROR\n\n"));
    QCOMPARE(frame.toUtf8(), bytes("ERROR\n\n\0"));
}

void TestStompFrame::messageFrame() {
    QCOMPARE(STOMPFrame::message(QStringLiteral("abc")), withNul("MESSAGE\nAttachment_received:abc\n\n"));
    QCOMPARE(STOMPFrame::message(QStringLiteral("\uc548\ub155")).toUtf8(),
             bytes("MESSAGE\nAttachment_received:\xec\x95\x88\xeb\x85\x95\n\n\0"));
}

void TestStompFrame::fixedPartsHaveTheirLengths() {
    // Prefix 30 + middle 12 + tail 3, the NUL counted.
    QCOMPARE(STOMPFrame::connected(QString(), std::nullopt).size(), 45);
    QCOMPARE(STOMPFrame::connected(QStringLiteral("id"), QStringLiteral("xyz")).size(), 50);
    QCOMPARE(STOMPFrame::receipt().size(), 10);
    QCOMPARE(STOMPFrame::error().size(), 8);
    // Prefix 28 + tail 3.
    QCOMPARE(STOMPFrame::message(QString()).size(), 31);
    QVERIFY(STOMPFrame::receipt().endsWith(QChar(u'\0')));
    QVERIFY(STOMPFrame::error().endsWith(QChar(u'\0')));
    QVERIFY(STOMPFrame::message(QString()).endsWith(QChar(u'\0')));
    QVERIFY(STOMPFrame::connected(QString(), std::nullopt).endsWith(QChar(u'\0')));
}

QTEST_APPLESS_MAIN(TestStompFrame)
#include "tst_stompframe.moc"
