#include "strictjson.h"

#include <QtTest>

class StrictJsonTest : public QObject {
    Q_OBJECT
private slots:
    void validJsonPasses_data() {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("request") << QByteArray(
            "{\"requesttype\":\"kitchenPrint\",\"data\":[65,66],\"port\":9100}");
        QTest::newRow("whitespace around") << QByteArray(" \t\r\n{ \"a\" : [ 1 , 2 ] }\n");
        QTest::newRow("all literals") << QByteArray("[true,false,null]");
        QTest::newRow("numbers") << QByteArray("[0,-0,1.5,-2.25e10,3E-2,1e+2,10]");
        QTest::newRow("escapes") << QByteArray("[\"\\\" \\\\ \\/ \\b \\f \\n \\r \\t \\u0041 \\uD55C\"]");
        QTest::newRow("surrogate pair") << QByteArray("[\"\\ud83d\\ude00\"]");
        QTest::newRow("empty containers") << QByteArray("{\"a\":{},\"b\":[]}");
        QTest::newRow("scalar top level") << QByteArray("5");
    }
    void validJsonPasses() {
        QFETCH(QByteArray, text);
        const auto fault = strictJsonFault(text);
        QVERIFY2(!fault, fault ? qPrintable(*fault) : "");
    }

    void invalidJsonFails_data() {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("empty") << QByteArray("");
        QTest::newRow("only blanks") << QByteArray("  ");
        QTest::newRow("raw tab in string") << QByteArray("{\"memo\":\"a\tb\"}");
        QTest::newRow("raw line feed in string") << QByteArray("{\"memo\":\"a\nb\"}");
        QTest::newRow("raw NUL in string") << QByteArray("{\"memo\":\"a\0b\"}", 14);
        QTest::newRow("number ending in a point") << QByteArray("{\"port\":1.}");
        QTest::newRow("number starting with a point") << QByteArray("{\"port\":.5}");
        QTest::newRow("leading zero") << QByteArray("{\"port\":09100}");
        QTest::newRow("plus sign") << QByteArray("{\"port\":+1}");
        QTest::newRow("bare exponent") << QByteArray("{\"port\":1e}");
        QTest::newRow("lone high surrogate") << QByteArray("{\"memo\":\"\\ud800\"}");
        QTest::newRow("high surrogate then letter") << QByteArray("{\"memo\":\"\\ud800x\"}");
        QTest::newRow("high then high") << QByteArray("{\"memo\":\"\\ud800\\ud800\"}");
        QTest::newRow("lone low surrogate") << QByteArray("{\"memo\":\"\\udc00\"}");
        QTest::newRow("short unicode escape") << QByteArray("{\"memo\":\"\\u12\"}");
        QTest::newRow("unknown escape") << QByteArray("{\"memo\":\"\\x41\"}");
        QTest::newRow("single quotes") << QByteArray("{'a':1}");
        QTest::newRow("trailing comma in object") << QByteArray("{\"a\":1,}");
        QTest::newRow("trailing comma in array") << QByteArray("[1,2,]");
        QTest::newRow("missing colon") << QByteArray("{\"a\" 1}");
        QTest::newRow("unquoted key") << QByteArray("{a:1}");
        QTest::newRow("two values") << QByteArray("{} {}");
        QTest::newRow("trailing text") << QByteArray("{\"a\":1}x");
        QTest::newRow("unterminated string") << QByteArray("{\"a\":\"b");
        QTest::newRow("unterminated object") << QByteArray("{\"a\":1");
        QTest::newRow("misspelt literal") << QByteArray("[tru]");
        QTest::newRow("NaN") << QByteArray("[NaN]");
        QTest::newRow("comment") << QByteArray("{} // x");
        QTest::newRow("too deep") << QByteArray(600, '[') + QByteArray(600, ']');
    }
    void invalidJsonFails() {
        QFETCH(QByteArray, text);
        QVERIFY(strictJsonFault(text));
    }

    void faultSaysWhere() {
        const auto fault = strictJsonFault("{\"a\":1.}");
        QVERIFY(fault);
        QVERIFY2(fault->contains(QStringLiteral("offset 7")), qPrintable(*fault));
    }
};

QTEST_APPLESS_MAIN(StrictJsonTest)
#include "tst_strictjson.moc"
