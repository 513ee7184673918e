#include "common/textform.h"

#include <QtTest>

class TextFormTest : public QObject {
    Q_OBJECT
private slots:
    void numbersAndTextsGiveTheSameText() {
        QCOMPARE(textualForm(QVariant(9100.0)), QStringLiteral("9100"));
        QCOMPARE(textualForm(QVariant(qint64(9100))), QStringLiteral("9100"));
        QCOMPARE(textualForm(QVariant(QStringLiteral("9100"))), QStringLiteral("9100"));
        QCOMPARE(textualForm(QVariant(5)), QStringLiteral("5"));
        QCOMPARE(textualForm(QVariant(-3.0)), QStringLiteral("-3"));
        QCOMPARE(textualForm(QVariant(9100.5)), QStringLiteral("9100.5"));
        QCOMPARE(textualForm(QVariant::fromValue(nullptr)), QStringLiteral("<null>"));
        QCOMPARE(textualForm(QVariant(true)), QStringLiteral("1"));
    }

    void parseInt32AcceptsSignAndDigitsOnly() {
        QCOMPARE(parseInt32(QStringLiteral("9100")), std::optional<qint32>(9100));
        QCOMPARE(parseInt32(QStringLiteral("+9100")), std::optional<qint32>(9100));
        QCOMPARE(parseInt32(QStringLiteral("-1")), std::optional<qint32>(-1));
        QCOMPARE(parseInt32(QStringLiteral("2147483647")), std::optional<qint32>(2147483647));
        QCOMPARE(parseInt32(QStringLiteral("-2147483648")), std::optional<qint32>(-2147483647 - 1));
        QVERIFY(!parseInt32(QStringLiteral("2147483648")));
        QVERIFY(!parseInt32(QStringLiteral("9100.0")));
        QVERIFY(!parseInt32(QStringLiteral("9100.5")));
        QVERIFY(!parseInt32(QStringLiteral(" 9100")));
        QVERIFY(!parseInt32(QStringLiteral("9100 ")));
        QVERIFY(!parseInt32(QStringLiteral("")));
        QVERIFY(!parseInt32(QStringLiteral("+")));
        QVERIFY(!parseInt32(QStringLiteral("0x10")));
        QVERIFY(!parseInt32(QStringLiteral("<null>")));
        QVERIFY(!parseInt32(QStringLiteral("٣"))); // digits of other scripts are not decimal here
    }

    void strictUtf8TakesWholeTextsOnly() {
        const QByteArray order = QStringLiteral("김치찌개").toUtf8();
        QCOMPARE(strictUtf8(order), std::optional<QString>(QStringLiteral("김치찌개")));
        QCOMPARE(strictUtf8(QByteArray()), std::optional<QString>(QString()));
        // Cut inside the last character: not UTF-8, rather than "김치찌" with the rest held
        // back for a next call that never comes.
        QVERIFY(!strictUtf8(order.chopped(1)));
        QVERIFY(!strictUtf8(order.chopped(2)));
        QVERIFY(!strictUtf8(QByteArray("\xf0\x9f\x98")));
        QVERIFY(!strictUtf8(QByteArray("\xff\xfe", 2)));
        QVERIFY(!strictUtf8(QByteArray("A\xc3", 2)));
        // Each call stands alone: a cut text does not spoil the next one.
        QVERIFY(!strictUtf8(order.chopped(1)));
        QCOMPARE(strictUtf8(QByteArray("\xb0", 1) + "A"), std::nullopt);
        QCOMPARE(strictUtf8("A"), std::optional<QString>(QStringLiteral("A")));
        // A byte-order mark is a character of the text, kept as sent.
        QCOMPARE(strictUtf8("\xef\xbb\xbf"
                            "A"),
                 std::optional<QString>(QStringLiteral("\ufeffA")));
    }
};

QTEST_APPLESS_MAIN(TextFormTest)
#include "tst_textform.moc"
