#include "textform.h"

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
};

QTEST_APPLESS_MAIN(TextFormTest)
#include "tst_textform.moc"
