#include "common/cp949.h"

#include <QtTest>

class Cp949Test : public QObject {
    Q_OBJECT
private slots:
    void hangulBecomesTwoBytesPerSyllable() {
        const auto bytes = cp949::encode(QStringLiteral("주문: 김치찌개 2, 똠얌꿍 1\n"));
        QVERIFY(bytes);
        QCOMPARE(*bytes, QByteArray::fromHex("c1d6b9ae3a20b1e8c4a1c2eeb0b320322c208c63bee4b2e120310a"));
    }

    void syllableOutsideEucKrIsAccepted() {
        // 똠 is not among the 2,350 syllables of EUC-KR; code page 949 adds it.
        const auto bytes = cp949::encode(QStringLiteral("똠"));
        QVERIFY(bytes);
        QCOMPARE(*bytes, QByteArray::fromHex("8c63"));
        QCOMPARE(cp949::decode(QByteArray::fromHex("8c63")), std::optional<QString>(QStringLiteral("똠")));
    }

    void asciiAndControlBytesPassThrough() {
        const QString text = QString::fromLatin1("\x1b@\x1dV\x00"
                                                 "A\nTable 3\r\n\t",
                                                 13);
        const auto bytes = cp949::encode(text);
        QVERIFY(bytes);
        QCOMPARE(*bytes, QByteArray("\x1b@\x1dV\x00"
                                    "A\nTable 3\r\n\t",
                                    13));
    }

    void emptyTextIsEmptyBytes() {
        const auto bytes = cp949::encode(QString());
        QVERIFY(bytes);
        QVERIFY(bytes->isEmpty());
    }

    void unrepresentableCharactersFailTheWholeText() {
        QVERIFY(!cp949::encode(QStringLiteral("김치 😀")));
        QVERIFY(!cp949::encode(QStringLiteral("Tiếng Việt")));
        QVERIFY(!cp949::encode(QString(QChar(0xD800)))); // a lone surrogate is not text
    }

    void charactersThatWouldBeDroppedSilentlyFailTheWholeText() {
        // Tag characters would vanish on the way without a word: "A<tag A>B" is not "AB".
        QVERIFY(!cp949::encode(QString::fromUcs4(U"A\U000E0041B")));
        QVERIFY(!cp949::encode(QString::fromUcs4(U"\U000E0001")));
        QVERIFY(!cp949::encode(QString::fromUcs4(U"\U000E007F")));
    }

    void decodeIsStrict() {
        QCOMPARE(cp949::decode(QByteArray::fromHex("c7d1b1db")),
                 std::optional<QString>(QStringLiteral("한글")));
        QVERIFY(!cp949::decode(QByteArray::fromHex("c7"))); // truncated pair
        QVERIFY(!cp949::decode(QByteArray::fromHex("ff41")));
    }

    void roundTripOfEverySyllableBlockSample() {
        // Every precomposed Hangul syllable has a code page 949 form.
        for (char16_t c = 0xAC00; c <= 0xD7A3; c += 97) {
            const QString text(QChar{c});
            const auto bytes = cp949::encode(text);
            QVERIFY2(bytes && bytes->size() == 2, qPrintable(text));
            QCOMPARE(cp949::decode(*bytes), std::optional<QString>(text));
        }
    }
};

QTEST_APPLESS_MAIN(Cp949Test)
#include "tst_cp949.moc"
