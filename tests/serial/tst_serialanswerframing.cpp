// The rules by which a serial terminal's answer is gathered, cut and decoded, chunk by
// chunk, as the line delivers it.
#include "forked.h"
#include "stdoutcapture.h"
#include "terminal_serial/serialanswerframing.h"

#include <QtTest>

using Outcome = SerialAnswerFraming::Outcome;
using Chunks = QList<QByteArray>;

Q_DECLARE_METATYPE(Chunks)

namespace {

QByteArray hex(const char *text) {
    return QByteArray::fromHex(text);
}

// A TS-132N answer: STX, four header bytes, the payload, two trailer bytes, ETX.
QByteArray ts132n(const QByteArray &payload) {
    return hex("02") + "HDR1" + payload + "T2" + hex("03");
}

// A KIS-7430 answer: STX, two header bytes, the payload, ETX.
QByteArray kis7430(const QByteArray &payload) {
    return hex("02") + "HD" + payload + hex("03");
}

struct Settings {
    std::optional<QString> mainInterface = QStringLiteral("USB");
    std::optional<QString> deviceType = QStringLiteral("TS-132N");
    int deviceTypeReads = 0;
    SerialAnswerFraming::SettingReader reader() {
        return [this](const QString &key) -> std::optional<QVariant> {
            if (key == QLatin1String("MAIN_INTERFACE"))
                return mainInterface ? std::optional<QVariant>(*mainInterface) : std::nullopt;
            if (key == QLatin1String("SERIAL_DEVICE_TYPE")) {
                ++deviceTypeReads;
                return deviceType ? std::optional<QVariant>(*deviceType) : std::nullopt;
            }
            return std::nullopt;
        };
    }
};

} // namespace

class SerialAnswerFramingTest : public QObject {
    Q_OBJECT
    QList<TerminalAnswer> posted;

    // One chunk; an answer it completes is kept in `posted`.
    void feed(SerialAnswerFraming &framing, const QByteArray &chunk) {
        if (const std::optional<TerminalAnswer> answer = framing.didReceiveData(chunk))
            posted << *answer;
    }

private slots:

    void init() { posted.clear(); }

    void trimTable() {
        QCOMPARE(SerialAnswerFraming::trimFor("TS-132N"), (SerialAnswerFraming::Trim{5, 3}));
        QCOMPARE(SerialAnswerFraming::trimFor("TS-167"), (SerialAnswerFraming::Trim{5, 3}));
        QCOMPARE(SerialAnswerFraming::trimFor("KIS-7430"), (SerialAnswerFraming::Trim{3, 1}));
        QCOMPARE(SerialAnswerFraming::trimFor("kis-7430"), (SerialAnswerFraming::Trim{5, 3}));
        QCOMPARE(SerialAnswerFraming::trimFor("KIS7430"), (SerialAnswerFraming::Trim{5, 3}));
        QCOMPARE(SerialAnswerFraming::trimFor(""), (SerialAnswerFraming::Trim{5, 3}));
    }

    // Each row: the chunks in the order they arrive, the model and the active interface;
    // what the POS is sent (one text per answer) and what is left in the buffer.
    void chunks_data() {
        QTest::addColumn<Chunks>("chunks");
        QTest::addColumn<QString>("deviceType");
        QTest::addColumn<QString>("mainInterface");
        QTest::addColumn<QStringList>("answers");
        QTest::addColumn<QByteArray>("leftOver");

        const QString ts = QStringLiteral("TS-132N");
        const QString usb = QStringLiteral("USB");
        const QByteArray abc = ts132n("ABC");

        QTest::newRow("TS-132N answer in one chunk")
            << Chunks{abc} << ts << usb << QStringList{"ABC"} << QByteArray();
        QTest::newRow("the same answer in three chunks") << Chunks{abc.left(3), abc.mid(3, 5), abc.mid(8)}
                                                         << ts << usb << QStringList{"ABC"} << QByteArray();
        QTest::newRow("one byte per chunk") <<
            [&] {
                Chunks c;
                for (char b : abc)
                    c << QByteArray(1, b);
                return c;
            }() << ts << usb << QStringList{"ABC"}
                                            << QByteArray();
        QTest::newRow("TS-167 is cut like TS-132N")
            << Chunks{ts132n("ABC")} << "TS-167" << usb << QStringList{"ABC"} << QByteArray();
        QTest::newRow("KIS-7430 answer: three bytes off the front, the ETX off the end")
            << Chunks{kis7430("PAYLOAD")} << "KIS-7430" << usb << QStringList{"PAYLOAD"} << QByteArray();
        QTest::newRow("KIS-7430 with the shortest payload")
            << Chunks{kis7430("12345")} << "KIS-7430" << usb << QStringList{"12345"} << QByteArray();
        QTest::newRow("unknown model is cut like TS-132N")
            << Chunks{ts132n("ABC")} << "XYZ-1" << usb << QStringList{"ABC"} << QByteArray();
        QTest::newRow("STX A ETX is too short")
            << Chunks{hex("024103")} << ts << usb << QStringList{} << QByteArray();
        QTest::newRow("exactly 9 bytes are an answer") << Chunks{hex("02") + "HDR1" + "Z" + "T2" + hex("03")}
                                                       << ts << usb << QStringList{"Z"} << QByteArray();
        QTest::newRow("8 bytes are dropped")
            << Chunks{hex("02") + "HDR1" + "T2" + hex("03")} << ts << usb << QStringList{} << QByteArray();
        QTest::newRow("KIS-7430, 9 bytes") << Chunks{hex("02") + "HD" + "ABCDE" + hex("03")} << "KIS-7430"
                                           << usb << QStringList{"ABCDE"} << QByteArray();
        QTest::newRow("TCP active: nothing kept, even with an ETX")
            << Chunks{abc} << ts << "TCP" << QStringList{} << QByteArray();
        QTest::newRow("interface text is compared exactly")
            << Chunks{abc} << ts << "usb" << QStringList{} << QByteArray();
        QTest::newRow("stray bytes before an STX chunk are dropped by it")
            << Chunks{"xyz", abc} << ts << usb << QStringList{"ABC"} << QByteArray();
        QTest::newRow("stray bytes become the front of an answer without an STX chunk")
            << Chunks{"xy", "HDR" + QByteArray("ABC") + "T2" + hex("03")} << ts << usb << QStringList{"ABC"}
            << QByteArray();
        QTest::newRow("an STX later in a chunk does not restart")
            << Chunks{"xx" + abc} << ts << usb << QStringList{"R1ABC"} << QByteArray();
        QTest::newRow("ETX and check byte in one chunk: the end cut counts from the check byte")
            << Chunks{abc + "C"} << ts << usb << QStringList{"ABCT"} << QByteArray();
        QTest::newRow("ETX and check byte in separate chunks: the check byte starts the next buffer")
            << Chunks{abc, "C"} << ts << usb << QStringList{"ABC"} << QByteArray("C");
        QTest::newRow("ETX inside the payload ends the answer")
            << Chunks{hex("02") + "HDR1AB", "CDE" + hex("03") + "FG", "T2" + hex("03")} << ts << usb
            << QStringList{"ABCDE"} << QByteArray();
        QTest::newRow("ETX inside the payload, one chunk: the cut counts from the last byte")
            << Chunks{hex("02") + "HDR1" + "ABCDE" + hex("03") + "FGT2" + hex("03")} << ts << usb
            << QStringList{QString::fromLatin1("ABCDE" + hex("03") + "FG")} << QByteArray();
        QTest::newRow("a second answer in the same chunk is lost")
            << Chunks{abc + ts132n("DEF")} << ts << usb
            << QStringList{QString::fromLatin1("ABCT2\x03\x02HDR1DEF")} << QByteArray();
        QTest::newRow("two answers in two chunks")
            << Chunks{abc, ts132n("DEF")} << ts << usb << QStringList{"ABC", "DEF"} << QByteArray();
        QTest::newRow("Korean answer in code page 949")
            << Chunks{ts132n(hex("bdc2c0ceb5c7befabdc0b4cfb4d9"))} << ts << usb
            << QStringList{QStringLiteral("승인되었습니다")} << QByteArray();
        QTest::newRow("bytes that are not code page 949 are dropped")
            << Chunks{ts132n(hex("ffff"))} << ts << usb << QStringList{} << QByteArray();
        QTest::newRow("a lead byte without its trail byte is dropped")
            << Chunks{ts132n("AB" + hex("b0"))} << ts << usb << QStringList{} << QByteArray();
        QTest::newRow("unfinished answer is kept")
            << Chunks{abc.left(7)} << ts << usb << QStringList{} << abc.left(7);
        QTest::newRow("an STX chunk drops the unfinished answer")
            << Chunks{abc.left(7), hex("02") + "HD"} << ts << usb << QStringList{}
            << QByteArray(hex("02") + "HD");
        QTest::newRow("control bytes and NUL pass through")
            << Chunks{ts132n(hex("00010a0d1b"))} << ts << usb
            << QStringList{QString::fromLatin1("\0\1\n\r\x1b", 5)} << QByteArray();
    }
    void chunks() {
        QFETCH(Chunks, chunks);
        QFETCH(QString, deviceType);
        QFETCH(QString, mainInterface);
        QFETCH(QStringList, answers);
        QFETCH(QByteArray, leftOver);

        Settings settings;
        settings.deviceType = deviceType;
        settings.mainInterface = mainInterface;
        SerialAnswerFraming framing(settings.reader());
        for (const QByteArray &chunk : chunks)
            feed(framing, chunk);

        QCOMPARE(posted.size(), answers.size());
        for (qsizetype i = 0; i < answers.size(); ++i)
            QCOMPARE(posted[i], (TerminalAnswer{answers[i], deviceType}));
        QCOMPARE(framing.combinedATransactionData(), leftOver);
    }

    void responseCarriesTheStoredModelAsDeviceName() {
        Settings settings;
        settings.deviceType = QStringLiteral("XYZ-1");
        SerialAnswerFraming framing(settings.reader());
        feed(framing, ts132n("ABC"));
        QCOMPARE(posted.size(), 1);
        QCOMPARE(posted[0].text, QStringLiteral("ABC"));
        QCOMPARE(posted[0].deviceName, QStringLiteral("XYZ-1"));
        QCOMPARE(posted[0].json(),
                 QStringLiteral(R"({"response":{"data":"ABC"},"devicetype":"CAT","devicename":"XYZ-1"})"));
    }

    void changingTheModelCutsTheNextAnswerTheNewWay() {
        Settings settings;
        SerialAnswerFraming framing(settings.reader());
        const QByteArray answer = kis7430("12345678");
        feed(framing, answer);
        settings.deviceType = QStringLiteral("KIS-7430");
        feed(framing, answer);
        QCOMPARE(posted.size(), 2);
        QCOMPARE(posted[0].text, QStringLiteral("3456"));
        QCOMPARE(posted[0].deviceName, QStringLiteral("TS-132N"));
        QCOMPARE(posted[1].text, QStringLiteral("12345678"));
        QCOMPARE(posted[1].deviceName, QStringLiteral("KIS-7430"));
    }

    void chunkWhileTcpLeavesAPartialAnswerAsItIs() {
        Settings settings;
        SerialAnswerFraming framing(settings.reader());
        const QByteArray answer = ts132n("ABC");
        feed(framing, answer.left(4));
        settings.mainInterface = QStringLiteral("TCP");
        feed(framing, hex("02") + "junk" + hex("03"));
        QCOMPARE(framing.combinedATransactionData(), answer.left(4));
        settings.mainInterface = QStringLiteral("USB");
        feed(framing, answer.mid(4));
        QCOMPARE(posted.size(), 1);
        QCOMPARE(posted[0].text, QStringLiteral("ABC"));
    }

    void outcomesOfTheBareStep() {
        SerialAnswerFraming framing([](const QString &) { return std::nullopt; });
        const auto model = [] { return QStringLiteral("TS-132N"); };
        using R = SerialAnswerFraming::Result;
        QCOMPARE(framing.receive(ts132n("A"), "TCP", model), (R{Outcome::Ignored, {}}));
        QCOMPARE(framing.receive(hex("02") + "HD", "USB", model), (R{Outcome::Collecting, {}}));
        QCOMPARE(framing.receive(hex("03"), "USB", model), (R{Outcome::TooShort, {}}));
        QCOMPARE(framing.receive(ts132n(hex("ff")), "USB", model), (R{Outcome::Undecodable, {}}));
        QCOMPARE(framing.receive(ts132n("OK"), "USB", model), (R{Outcome::Answered, "OK"}));
        QCOMPARE(framing.combinedATransactionData(), QByteArray());
        QVERIFY(posted.isEmpty()); // the bare step never posts
    }

    void anAnswerOf64KiBIsTakenWhole() {
        Settings settings;
        SerialAnswerFraming framing(settings.reader());
        const QByteArray payload(SerialAnswerFraming::maximumAnswerLength - 8, 'A');
        const QByteArray answer = ts132n(payload);
        QCOMPARE(answer.size(), 64 * 1024);
        for (qsizetype at = 0; at < answer.size(); at += 4096)
            feed(framing, answer.mid(at, 4096));
        QCOMPARE(posted.size(), 1);
        QCOMPARE(posted[0].text, QString(payload));
    }

    // A line that never sends an ETX must not grow the service for ever: past 64 KiB what was
    // kept goes, the rest is not kept until a chunk starts with STX, and that answer arrives.
    void moreThan64KiBWithoutAnEndIsThrownAwayUntilTheNextStart() {
        SerialAnswerFraming framing([](const QString &) { return std::nullopt; });
        const auto model = [] { return QStringLiteral("TS-132N"); };
        using R = SerialAnswerFraming::Result;
        const QByteArray block(4096, 'x');
        QCOMPARE(framing.receive(hex("02") + block.mid(1), "USB", model), (R{Outcome::Collecting, {}}));
        for (int i = 1; i < 16; ++i)
            QCOMPARE(framing.receive(block, "USB", model), (R{Outcome::Collecting, {}}));
        QCOMPARE(framing.combinedATransactionData().size(), 64 * 1024);
        QCOMPARE(framing.receive("y", "USB", model), (R{Outcome::Overflowed, {}}));
        QCOMPARE(framing.combinedATransactionData(), QByteArray());
        for (int i = 0; i < 1000; ++i)
            QCOMPARE(framing.receive(block, "USB", model), (R{Outcome::Discarded, {}}));
        // The tail of the flood, ETX included, is not an answer.
        QCOMPARE(framing.receive("tail" + hex("03") + "T2" + hex("03"), "USB", model),
                 (R{Outcome::Discarded, {}}));
        QCOMPARE(framing.combinedATransactionData(), QByteArray());
        QCOMPARE(framing.receive(ts132n("OK"), "USB", model), (R{Outcome::Answered, "OK"}));
    }

    void anOverflowIsOneLine() {
        Settings settings;
        SerialAnswerFraming framing(settings.reader());
        StdoutCapture output;
        const QByteArray block(8192, 'x');
        for (int i = 0; i < 40; ++i)
            feed(framing, block);
        feed(framing, ts132n("OK"));
        QCOMPARE(output.lines(),
                 QStringList{"serial answer discarded: more than 65536 bytes without an end of "
                             "text; waiting for the next start of text"});
        QCOMPARE(posted.size(), 1);
        QCOMPARE(posted[0].text, QStringLiteral("OK"));
    }

    void theModelIsReadForEveryChunkWithBytes() {
        Settings settings;
        SerialAnswerFraming framing(settings.reader());
        feed(framing, "ab");
        QCOMPARE(settings.deviceTypeReads, 1);
        settings.mainInterface = QStringLiteral("TCP");
        feed(framing, "cd");
        QCOMPARE(settings.deviceTypeReads, 1);
    }

    void missingMainInterfaceStops() {
        const ChildOutcome outcome = runInChild([this] {
            Settings settings;
            settings.mainInterface.reset();
            SerialAnswerFraming framing(settings.reader());
            feed(framing, "A");
        });
        QVERIFY(outcome.exitedNormally);
        QVERIFY(outcome.exitCode != 0);
        QVERIFY2(outcome.standardError.startsWith("fatal: MAIN_INTERFACE"),
                 outcome.standardError.constData());
    }

    void missingDeviceTypeStopsAtTheFirstByte() {
        const ChildOutcome outcome = runInChild([this] {
            Settings settings;
            settings.deviceType.reset();
            SerialAnswerFraming framing(settings.reader());
            feed(framing, "A"); // no ETX: the model is read all the same
        });
        QVERIFY(outcome.exitedNormally);
        QVERIFY(outcome.exitCode != 0);
        QVERIFY2(outcome.standardError.startsWith("fatal: SERIAL_DEVICE_TYPE"),
                 outcome.standardError.constData());
    }

    void missingDeviceTypeDoesNotMatterWhileTcpIsActive() {
        const ChildOutcome outcome = runInChild([this] {
            Settings settings;
            settings.mainInterface = QStringLiteral("TCP");
            settings.deviceType.reset();
            SerialAnswerFraming framing(settings.reader());
            feed(framing, ts132n("ABC"));
        });
        QVERIFY(outcome.exitedNormally);
        QCOMPARE(outcome.exitCode, 0);
        QCOMPARE(outcome.standardError, QByteArray());
    }
};

QTEST_GUILESS_MAIN(SerialAnswerFramingTest)
#include "tst_serialanswerframing.moc"
