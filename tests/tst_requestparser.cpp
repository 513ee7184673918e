// Which frames are JSON. The service reads a frame as RFC 8259 writes JSON and refuses
// anything a forgiving parser would let through (raw control characters in strings, "1.",
// unpaired surrogate escapes): a request only a forgiving parser accepts is a request the
// POS did not mean to send. Texts that are objects are sent as frames as they are; other
// values are sent as the member "v" of a request.
#include "gateway/request.h"

#include <QtTest>

namespace {

QString asFrame(const QByteArray &text) {
    return QString::fromLatin1(text);
}

QString asMember(const QByteArray &text) {
    return QString::fromLatin1(R"({"requesttype":"x","data":[],"v":)" + text + "}");
}

// Both ways the service reads a frame must agree; returns the refusal, empty when the
// frame is read.
QString refusalOf(const QString &frame) {
    const auto object = parseRequestObject(frame);
    const auto request = parseRequest(frame);
    const auto *objectError = std::get_if<RequestError>(&object);
    const auto *requestError = std::get_if<RequestError>(&request);
    if (objectError) {
        if (!requestError || requestError->reason != objectError->reason)
            qFatal("parseRequest does not refuse %s as parseRequestObject does", qPrintable(frame));
        return objectError->reason;
    }
    // parseRequest may still refuse the frame for its "data"; the frames here are about
    // JSON only.
    return requestError && requestError->reason.startsWith(QStringLiteral("request frame"))
               ? requestError->reason
               : QString();
}

bool isNotJson(const QString &reason) {
    return reason.startsWith(QStringLiteral("request frame is not JSON: "));
}

} // namespace

class RequestParserTest : public QObject {
    Q_OBJECT
private slots:
    void validJsonIsRead_data() {
        QTest::addColumn<QString>("frame");
        QTest::newRow("request") << asFrame(
            "{\"requesttype\":\"kitchenPrint\",\"data\":[65,66],\"port\":9100}");
        QTest::newRow("whitespace around") << asFrame(" \t\r\n{ \"a\" : [ 1 , 2 ] }\n");
        QTest::newRow("all literals") << asMember("[true,false,null]");
        QTest::newRow("numbers") << asMember("[0,-0,1.5,-2.25e10,3E-2,1e+2,10]");
        QTest::newRow("escapes") << asMember("[\"\\\" \\\\ \\/ \\b \\f \\n \\r \\t \\u0041 \\uD55C\"]");
        QTest::newRow("surrogate pair") << asMember("[\"\\ud83d\\ude00\"]");
        QTest::newRow("empty containers") << asFrame("{\"a\":{},\"b\":[]}");
        QTest::newRow("scalar") << asMember("5");
    }
    void validJsonIsRead() {
        QFETCH(QString, frame);
        const QString reason = refusalOf(frame);
        QVERIFY2(reason.isEmpty(), qPrintable(reason));
    }

    void escapesMeanWhatTheySay() {
        const auto object = parseRequestObject(asMember("\"\\\" \\\\ \\/ \\b \\f \\n \\r \\t \\u0041 \\uD55C "
                                                        "\\ud83d\\ude00 \\u0000\""));
        QCOMPARE(std::get<QVariantMap>(object).value("v").toString(),
                 QString::fromUtf16(u"\" \\ / \b \f \n \r \t A 한 😀 ") + QChar(u'\0'));
    }

    void invalidJsonIsRefused_data() {
        QTest::addColumn<QString>("frame");
        QTest::newRow("empty") << asFrame("");
        QTest::newRow("only blanks") << asFrame("  ");
        QTest::newRow("raw tab in string") << asFrame("{\"memo\":\"a\tb\"}");
        QTest::newRow("raw line feed in string") << asFrame("{\"memo\":\"a\nb\"}");
        QTest::newRow("raw NUL in string") << asFrame(QByteArray("{\"memo\":\"a\0b\"}", 14));
        QTest::newRow("number ending in a point") << asFrame("{\"port\":1.}");
        QTest::newRow("number starting with a point") << asFrame("{\"port\":.5}");
        QTest::newRow("leading zero") << asFrame("{\"port\":09100}");
        QTest::newRow("plus sign") << asFrame("{\"port\":+1}");
        QTest::newRow("bare exponent") << asFrame("{\"port\":1e}");
        QTest::newRow("lone high surrogate") << asFrame("{\"memo\":\"\\ud800\"}");
        QTest::newRow("high surrogate then letter") << asFrame("{\"memo\":\"\\ud800x\"}");
        QTest::newRow("high then high") << asFrame("{\"memo\":\"\\ud800\\ud800\"}");
        QTest::newRow("lone low surrogate") << asFrame("{\"memo\":\"\\udc00\"}");
        QTest::newRow("short unicode escape") << asFrame("{\"memo\":\"\\u12\"}");
        QTest::newRow("unknown escape") << asFrame("{\"memo\":\"\\x41\"}");
        QTest::newRow("single quotes") << asFrame("{'a':1}");
        QTest::newRow("trailing comma in object") << asFrame("{\"a\":1,}");
        QTest::newRow("trailing comma in array") << asMember("[1,2,]");
        QTest::newRow("missing colon") << asFrame("{\"a\" 1}");
        QTest::newRow("unquoted key") << asFrame("{a:1}");
        QTest::newRow("two values") << asFrame("{} {}");
        QTest::newRow("trailing text") << asFrame("{\"a\":1}x");
        QTest::newRow("unterminated string") << asFrame("{\"a\":\"b");
        QTest::newRow("unterminated object") << asFrame("{\"a\":1");
        QTest::newRow("misspelt literal") << asMember("[tru]");
        QTest::newRow("NaN") << asMember("[NaN]");
        QTest::newRow("comment") << asFrame("{} // x");
        QTest::newRow("too deep") << asMember(QByteArray(600, '[') + QByteArray(600, ']'));
        // The same faults where the old checker also looked: in a member name, at the top
        // level, in a value a POS request would really carry.
        QTest::newRow("lone surrogate in a key") << asFrame("{\"\\udc00\":1}");
        QTest::newRow("raw tab in a key") << asFrame("{\"a\tb\":1}");
        QTest::newRow("leading zero in data") << asFrame("{\"requesttype\":\"x\",\"data\":[01]}");
        QTest::newRow("minus alone") << asMember("-");
        QTest::newRow("two commas") << asMember("[1,,2]");
        QTest::newRow("missing comma") << asMember("[1 2]");
        QTest::newRow("form feed outside strings") << asFrame("{\"a\":1}\f");
        QTest::newRow("closing bracket too many") << asFrame("{\"a\":1}}");
        QTest::newRow("array closed by a brace") << asMember("[1}");
    }
    void invalidJsonIsRefused() {
        QFETCH(QString, frame);
        const QString reason = refusalOf(frame);
        QVERIFY2(isNotJson(reason), qPrintable(frame + " -> " + reason));
    }

    // A POS developer reading the service's last words needs to know where to look.
    void refusalSaysWhere() {
        const QString reason = refusalOf(asFrame("{\"a\":1.}"));
        QVERIFY2(reason.contains(QStringLiteral("invalid number at offset 5")), qPrintable(reason));
    }
};

QTEST_APPLESS_MAIN(RequestParserTest)
#include "tst_requestparser.moc"
