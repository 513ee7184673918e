#include "terminal_tcp/terminalanswers.h"

#include <QtTest>

using namespace TerminalAnswers;

class TerminalAnswersTest : public QObject {
    Q_OBJECT
private slots:
    void kisAnswer_data() {
        QTest::addColumn<std::optional<QByteArray>>("answer");
        QTest::addColumn<int>("kind");
        QTest::addColumn<QByteArray>("text");
        using K = KisAnswer::Kind;
        QTest::newRow("no answer") << std::optional<QByteArray>() << int(K::Nothing) << QByteArray();
        QTest::newRow("acknowledgement")
            << std::optional<QByteArray>("\x06") << int(K::Nothing) << QByteArray();
        QTest::newRow("acknowledgement and more") << std::optional<QByteArray>("\x06"
                                                                               "ABCDEF")
                                                  << int(K::Nothing) << QByteArray();
        QTest::newRow("1 byte") << std::optional<QByteArray>("\x02") << int(K::TooShort) << QByteArray();
        QTest::newRow("3 bytes") << std::optional<QByteArray>("\x02"
                                                              "A\x03")
                                 << int(K::TooShort) << QByteArray();
        QTest::newRow("4 bytes: empty text") << std::optional<QByteArray>("\x02"
                                                                          "AB\x03")
                                             << int(K::Result) << QByteArray();
        QTest::newRow("result") << std::optional<QByteArray>("\x02"
                                                             "ABOK 1234\x03")
                                << int(K::Result) << QByteArray("OK 1234");
        QTest::newRow("a NAK is a result too") << std::optional<QByteArray>("\x15"
                                                                            "AB"
                                                                            "X"
                                                                            "\x03")
                                               << int(K::Result) << QByteArray("X");
    }
    void kisAnswer() {
        QFETCH(std::optional<QByteArray>, answer);
        QFETCH(int, kind);
        QFETCH(QByteArray, text);
        const KisAnswer result = readKisAnswer(answer);
        QCOMPARE(int(result.kind), kind);
        QCOMPARE(result.text, text);
    }

    void kisEndsWithTheFirstReplyForPrintsAndDleAtIndexTwo() {
        QVERIFY(kisEndsWithFirstReply("\x02PAY\x03", "print"));
        QVERIFY(kisEndsWithFirstReply(QByteArray("\x02"
                                                 "A\x10",
                                                 3),
                                      "payment"));
        QVERIFY(!kisEndsWithFirstReply(QByteArray("\x10\x10", 2), "payment")); // no byte at index 2
        QVERIFY(!kisEndsWithFirstReply("\x02PAY\x03", "Print"));
        QVERIFY(!kisEndsWithFirstReply({}, "payment"));
    }

    void smartroFinalReplyStartsWithDle() {
        QVERIFY(isSmartroFinalReply("\x10OK"));
        QVERIFY(!isSmartroFinalReply("OK\x10"));
        QVERIFY(!isSmartroFinalReply({}));
    }

    void listenerCutsFiveAndThree_data() {
        QTest::addColumn<QByteArray>("frame");
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("empty") << QByteArray() << QByteArray();
        QTest::newRow("8 bytes") << QByteArray("12345678") << QByteArray();
        QTest::newRow("9 bytes") << QByteArray("12345X678") << QByteArray("X");
        QTest::newRow("answer") << QByteArray("\x02"
                                              "0123OK\x03"
                                              "XY")
                                << QByteArray("OK");
    }
    void listenerCutsFiveAndThree() {
        QFETCH(QByteArray, frame);
        QFETCH(QByteArray, text);
        QCOMPARE(listenerAnswerBytes(frame), text);
    }

    void wholeReplies_data() {
        QTest::addColumn<QByteArray>("gathered");
        QTest::addColumn<QByteArray>("rule");
        QTest::addColumn<int>("whole"); // the length of the whole reply; 0: more may come
        QTest::newRow("first reply: ACK alone") << QByteArray("\x06") << QByteArray("first") << 1;
        QTest::newRow("first reply: ACK, then the result") << QByteArray("\x06\x02"
                                                                         "ABOK\x03")
                                                           << QByteArray("first") << 1;
        QTest::newRow("first reply: two ACKs, then the result") << QByteArray("\x06\x06\x02"
                                                                              "ABOK\x03")
                                                                << QByteArray("first") << 2;
        QTest::newRow("first reply: anything else, as it came")
            << QByteArray("FIRST") << QByteArray("first") << 5;
        QTest::newRow("KIS: ACK") << QByteArray("\x06"
                                                "AB")
                                  << QByteArray("kis") << 1;
        QTest::newRow("KIS: result") << QByteArray("\x02"
                                                   "ABOK\x03")
                                     << QByteArray("kis") << 6;
        QTest::newRow("KIS: result without its ETX yet") << QByteArray("\x02"
                                                                       "ABOK")
                                                         << QByteArray("kis") << 0;
        QTest::newRow("KIS: cut inside a character") << QByteArray("\x02"
                                                                   "AB\xbd")
                                                     << QByteArray("kis") << 0;
        QTest::newRow("SMARTRO: framed reply") << QByteArray("\x02"
                                                             "CARD READ\x03")
                                               << QByteArray("smartro") << 11;
        QTest::newRow("SMARTRO: DLE reply has no end byte")
            << QByteArray("\x10OK") << QByteArray("smartro") << 0;
        QTest::newRow("listener: frame") << QByteArray("\x02"
                                                       "0000OK\x03"
                                                       "00")
                                         << QByteArray("listener") << 10;
        QTest::newRow("listener: empty answer") << QByteArray("\x02"
                                                              "0000\x03"
                                                              "00")
                                                << QByteArray("listener") << 8;
        QTest::newRow("listener: trailing bytes not all there") << QByteArray("\x02"
                                                                              "0000OK\x03"
                                                                              "0")
                                                                << QByteArray("listener") << 0;
        QTest::newRow("listener: too short for a frame") << QByteArray("\x03"
                                                                       "00")
                                                         << QByteArray("listener") << 0;
    }
    void wholeReplies() {
        QFETCH(QByteArray, gathered);
        QFETCH(QByteArray, rule);
        QFETCH(int, whole);
        const QHash<QByteArray, ReplyEnd> rules{{"first", firstReplyEnd},
                                                {"kis", kisAnswerEnd},
                                                {"smartro", smartroReplyEnd},
                                                {"listener", listenerFrameEnd}};
        QCOMPARE(rules.value(rule)(gathered), qsizetype(whole));
        // Whole at once, while the terminal may still send: no waiting for a pause.
        QCOMPARE(replyLength(gathered, 10240, rules.value(rule), true), qsizetype(whole));
    }

    void replyLengthTakesTheLimitOrWhatCameOnceNoMoreCanCome() {
        QCOMPARE(replyLength({}, 1024, listenerFrameEnd, false), qsizetype(0));
        QCOMPARE(replyLength("12345", 1024, listenerFrameEnd, true), qsizetype(0));
        QCOMPARE(replyLength("12345", 1024, listenerFrameEnd, false), qsizetype(5));
        QCOMPARE(replyLength(QByteArray(1500, 'x'), 1024, listenerFrameEnd, true), qsizetype(1024));
        // The end is looked for within the limit only.
        const QByteArray frame = QByteArray(1100, 'x') + "\x03"
                                                         "00";
        QCOMPARE(replyLength(frame, 1024, listenerFrameEnd, true), qsizetype(1024));
        QCOMPARE(replyLength("\x06\x02"
                             "AB",
                             10240, firstReplyEnd, false),
                 qsizetype(1));
    }
};

QTEST_APPLESS_MAIN(TerminalAnswersTest)
#include "tst_terminalanswers.moc"
