#include "terminalanswers.h"

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
};

QTEST_APPLESS_MAIN(TerminalAnswersTest)
#include "tst_terminalanswers.moc"
