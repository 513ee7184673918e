#include "gateway/request.h"
#include "gateway/requestrouting.h"

#include <QtTest>
#include <cstring>
#include <limits>

namespace {

QVariantMap parsed(const QString &text) {
    auto result = parseRequestObject(text);
    if (auto *error = std::get_if<RequestError>(&result))
        qFatal("unexpected parse failure: %s", qPrintable(error->reason));
    return std::get<QVariantMap>(result);
}

bool parseFails(const QString &text) {
    return std::holds_alternative<RequestError>(parseRequestObject(text));
}

std::variant<QVariantMap, RequestError> internalOf(const QString &text) {
    return buildInternalRequest(parsed(text));
}

QString reasonOf(const std::variant<QVariantMap, RequestError> &result) {
    const auto *error = std::get_if<RequestError>(&result);
    return error ? error->reason : QString();
}

// The request as the service reads it (parseRequest), checked against the two steps it
// stands for: the same internal request, the same object but for "data", or the same
// refusal.
std::variant<QVariantMap, RequestError> serviceReading(const QString &text) {
    const auto single = parseRequest(text);
    const auto object = parseRequestObject(text);
    const auto steps = std::holds_alternative<QVariantMap>(object)
                           ? buildInternalRequest(std::get<QVariantMap>(object))
                           : object;
    if (const auto *error = std::get_if<RequestError>(&single)) {
        // What follows "not JSON" is the parser's own description of the fault.
        const QString notJson = QStringLiteral("request frame is not JSON");
        const bool same = error->reason.startsWith(notJson) ? reasonOf(steps).startsWith(notJson)
                                                            : reasonOf(steps) == error->reason;
        if (!same)
            qFatal("the single reading refuses with \"%s\", the steps with \"%s\"", qPrintable(error->reason),
                   qPrintable(reasonOf(steps)));
        return *error;
    }
    const ParsedRequest &request = std::get<ParsedRequest>(single);
    QVariantMap withoutData = std::get<QVariantMap>(object);
    withoutData.remove("data");
    if (!std::holds_alternative<QVariantMap>(steps) || std::get<QVariantMap>(steps) != request.internal ||
        withoutData != request.object)
        qFatal("the single reading and the steps disagree on %s", qPrintable(text));
    return request.internal;
}

// A frame with `value` as its "v", and the value as read back.
QVariant valueRead(const QString &value) {
    return parsed(R"({"requesttype":"x","data":[],"v":)" + value + "}").value("v");
}

struct Interface {
    std::optional<QVariant> value;
    int reads = 0;
    std::function<Settings::Interface()> reader() {
        return [this] {
            ++reads;
            return Settings::interfaceOf(value);
        };
    }
};

} // namespace

class RequestTest : public QObject {
    Q_OBJECT
private slots:
    void kitchenOrderBecomesTheFiveKeyDictionary() {
        const auto result =
            internalOf(R"({"requesttype":"kitchenPrint","data":[65,66],"ip":"192.168.0.50","port":9100})");
        QVERIFY(std::holds_alternative<QVariantMap>(result));
        const QVariantMap internal = std::get<QVariantMap>(result);
        QCOMPARE(internal.keys(), (QStringList{"data", "ip", "port", "requesttype", "van"}));
        QCOMPARE(internal.value("data").typeId(), QMetaType::QByteArray);
        QCOMPARE(internal.value("data").toByteArray(), QByteArray("\x41\x42"));
        QCOMPARE(internal.value("ip").typeId(), QMetaType::QString);
        QCOMPARE(internal.value("ip").toString(), QStringLiteral("192.168.0.50"));
        QVERIFY(internal.value("port").typeId() != QMetaType::QString); // numbers stay numbers
        QCOMPARE(internal.value("port").toInt(), 9100);
        QVERIFY(isNull(internal.value("van")));
        QCOMPARE(internal.value("requesttype").toString(), QStringLiteral("kitchenPrint"));
    }

    void absentOptionalKeysAreNull() {
        const QVariantMap internal =
            std::get<QVariantMap>(internalOf(R"({"requesttype":"print","data":[1]})"));
        QCOMPARE(internal.size(), 5);
        QVERIFY(isNull(internal.value("ip")));
        QVERIFY(isNull(internal.value("port")));
        QVERIFY(isNull(internal.value("van")));
    }

    void otherKeysAreIgnored() {
        const QVariantMap internal = std::get<QVariantMap>(
            internalOf(R"({"requesttype":"print","data":[1],"msg":"deselect","extra":{"a":1}})"));
        QCOMPARE(internal.size(), 5);
        QVERIFY(!internal.contains("msg"));
    }

    void portAsStringStaysString() {
        const QVariantMap internal =
            std::get<QVariantMap>(internalOf(R"({"requesttype":"kitchenPrint","data":[],"port":"9100"})"));
        QCOMPARE(internal.value("port").typeId(), QMetaType::QString);
    }

    void emptyDataIsAnEmptyBuffer() {
        const QVariantMap internal =
            std::get<QVariantMap>(internalOf(R"({"requesttype":"kitchenPrint","data":[]})"));
        QCOMPARE(internal.value("data").typeId(), QMetaType::QByteArray);
        QCOMPARE(internal.value("data").toByteArray().size(), 0);
    }

    void everyByteValueSurvives() {
        QString array;
        QByteArray expected;
        for (int i = 0; i < 256; ++i) {
            array += (i ? "," : "") + QString::number(i);
            expected.append(static_cast<char>(i));
        }
        const auto internal =
            std::get<QVariantMap>(internalOf(R"({"requesttype":"x","data":[)" + array + "]}"));
        QCOMPARE(internal.value("data").toByteArray(), expected);
    }

    void malformedDataFails_data() {
        QTest::addColumn<QString>("frame");
        QTest::newRow("256") << R"({"requesttype":"kitchenPrint","data":[65,256]})";
        QTest::newRow("-1") << R"({"requesttype":"kitchenPrint","data":[-1]})";
        QTest::newRow("string") << R"({"requesttype":"kitchenPrint","data":"AB"})";
        QTest::newRow("fraction") << R"({"requesttype":"kitchenPrint","data":[1.5]})";
        QTest::newRow("boolean") << R"({"requesttype":"kitchenPrint","data":[true]})";
        QTest::newRow("null element") << R"({"requesttype":"kitchenPrint","data":[null]})";
        QTest::newRow("string element") << R"({"requesttype":"kitchenPrint","data":["65"]})";
        QTest::newRow("object") << R"({"requesttype":"kitchenPrint","data":{"0":65}})";
        QTest::newRow("null") << R"({"requesttype":"kitchenPrint","data":null})";
        QTest::newRow("missing") << R"({"requesttype":"kitchenPrint"})";
    }
    void malformedDataFails() {
        QFETCH(QString, frame);
        QVERIFY(std::holds_alternative<RequestError>(internalOf(frame)));
    }

    void nonAsciiAnywhereFails() {
        QVERIFY(parseFails(QStringLiteral(R"({"requesttype":"kitchenPrint","data":[],"memo":"한"})")));
        QVERIFY(parseFails(QStringLiteral("{\"requesttype\":\"print\",\"data\":[]}\u00a0")));
        QVERIFY(parseFails(QStringLiteral("{\"requesttype\":\"caf\u00e9\",\"data\":[]}")));
        // The same character escaped is plain ASCII.
        const QVariantMap object =
            parsed(QStringLiteral(R"({"requesttype":"kitchenPrint","data":[],"memo":"\ud55c"})"));
        QCOMPARE(object.value("memo").toString(), QStringLiteral("한"));
    }

    void notJsonFails_data() {
        QTest::addColumn<QString>("frame");
        QTest::newRow("empty") << "";
        QTest::newRow("words") << "hello";
        QTest::newRow("truncated") << R"({"requesttype":"print","data":[1)";
        QTest::newRow("trailing garbage") << R"({"requesttype":"print","data":[1]} x)";
        QTest::newRow("array") << R"([{"requesttype":"print","data":[1]}])";
        QTest::newRow("number") << "5";
        QTest::newRow("string") << R"("kitchenPrint")";
        QTest::newRow("null") << "null";
        QTest::newRow("single quotes") << "{'requesttype':'print','data':[1]}";
        QTest::newRow("raw tab inside a string")
            << "{\"requesttype\":\"print\",\"data\":[1],\"memo\":\"a\tb\"}";
        QTest::newRow("number ending in a point") << R"({"requesttype":"print","data":[1.]})";
        QTest::newRow("lone surrogate escape") << R"({"requesttype":"print","data":[1],"memo":"\ud800"})";
    }
    void notJsonFails() {
        QFETCH(QString, frame);
        QVERIFY(parseFails(frame));
    }

    // Routing and kitchen printing compare "port" and "requesttype" by type as well as by
    // value, so numbers keep exactly the types QJsonDocument gave them: an integral value
    // that fits in 64 bits is a qlonglong however it is written, anything else a double.
    void numbersKeepTheirTypes_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QVariant>("expected");
        QTest::newRow("integer") << "9100" << QVariant(qlonglong(9100));
        QTest::newRow("integer with .0") << "9100.0" << QVariant(qlonglong(9100));
        QTest::newRow("exponent") << "1e2" << QVariant(qlonglong(100));
        QTest::newRow("capital exponent, fraction") << "91.00E2" << QVariant(qlonglong(9100));
        QTest::newRow("minus zero") << "-0" << QVariant(qlonglong(0));
        QTest::newRow("minus zero point zero") << "-0.0" << QVariant(qlonglong(0));
        QTest::newRow("zero with a huge exponent") << "0e999999999999999999999" << QVariant(qlonglong(0));
        QTest::newRow("largest qlonglong")
            << "9223372036854775807" << QVariant(qlonglong(9223372036854775807LL));
        QTest::newRow("one past the largest") << "9223372036854775808" << QVariant(9223372036854775808.0);
        QTest::newRow("one below the smallest rounds to it")
            << "-9223372036854775809" << QVariant(qlonglong(std::numeric_limits<qint64>::min()));
        QTest::newRow("beyond 64 bits")
            << "123456789012345678901234567890" << QVariant(1.2345678901234568e29);
        QTest::newRow("above 2^53 stays exact")
            << "9007199254740993" << QVariant(qlonglong(9007199254740993LL));
        QTest::newRow("above 2^53 with .0 is rounded")
            << "9007199254740993.0" << QVariant(qlonglong(9007199254740992LL));
        QTest::newRow("fraction") << "1.5" << QVariant(1.5);
        QTest::newRow("negative fraction") << "-2.25e-1" << QVariant(-0.225);
        QTest::newRow("subnormal") << "1e-310" << QVariant(1e-310);
        QTest::newRow("smallest subnormal") << "4.9e-324" << QVariant(4.9406564584124654e-324);
        QTest::newRow("rounds up to the smallest subnormal") << "3e-324" << QVariant(4.9406564584124654e-324);
        QTest::newRow("largest double") << "1.7976931348623157e308" << QVariant(1.7976931348623157e308);
        // simdjson's own conversion made 1.0656669112868011 of this one.
        QTest::newRow("long mantissa with exponent")
            << "0.255018446744073709551616e5" << QVariant(25501.84467440737);
        QTest::newRow("halfway rounds to even")
            << "1.00000000000000011102230246251565404236316680908203125" << QVariant(qlonglong(1));
    }
    void numbersKeepTheirTypes() {
        QFETCH(QString, text);
        QFETCH(QVariant, expected);
        const QVariant value = valueRead(text);
        QCOMPARE(value.typeId(), expected.typeId());
        if (expected.typeId() == QMetaType::Double) {
            const double got = value.toDouble(), want = expected.toDouble();
            QVERIFY2(std::memcmp(&got, &want, sizeof got) == 0,
                     qPrintable(QString::number(got, 'g', 17) + " != " + QString::number(want, 'g', 17)));
        } else {
            QCOMPARE(value, expected);
        }
    }

    // QJsonDocument refuses what does not fit a double rather than making it infinite or 0.
    void numbersOutOfRangeFail_data() {
        QTest::addColumn<QString>("text");
        QTest::newRow("overflow") << "1e400";
        QTest::newRow("negative overflow") << "-1e400";
        QTest::newRow("just past the largest double") << "1.7976931348623159e308";
        QTest::newRow("309 digits") << "1" + QString(309, u'0');
        QTest::newRow("underflow") << "1e-400";
        QTest::newRow("negative underflow") << "-1e-400";
        QTest::newRow("rounds to zero") << "2e-324";
        QTest::newRow("just under half the smallest subnormal") << "2.4703282292062327e-324";
        QTest::newRow("long underflow") << "0." + QString(400, u'0') + "1";
    }
    void numbersOutOfRangeFail() {
        QFETCH(QString, text);
        QVERIFY(parseFails(R"({"requesttype":"x","data":[],"v":)" + text + "}"));
        QVERIFY(reasonOf(serviceReading(R"({"requesttype":"x","data":[],"v":)" + text + "}"))
                    .startsWith("request frame is not JSON"));
    }

    void bytesMayBeWrittenAsAnyIntegralNumber() {
        const auto internal = serviceReading(R"({"requesttype":"x","data":[65.0,1e2,-0,2.55e2,0.0e9,7]})");
        QCOMPARE(std::get<QVariantMap>(internal).value("data").toByteArray(),
                 QByteArray("Ad\0\xff\0\x07", 6));
    }

    void fractionsTooSmallAreNotBytes() {
        QCOMPARE(reasonOf(serviceReading(R"({"requesttype":"x","data":[1e-320]})")),
                 QStringLiteral("request \"data\" is not an array of integers 0 to 255"));
        QCOMPARE(reasonOf(serviceReading(R"({"requesttype":"x","data":[18446744073709551616]})")),
                 QStringLiteral("request \"data\" is not an array of integers 0 to 255"));
    }

    void aKeyGivenTwiceKeepsItsLastValue() {
        const QVariantMap internal = std::get<QVariantMap>(serviceReading(
            R"({"requesttype":"print","data":[1],"port":1,"data":[2,3],"requesttype":"kitchenPrint","port":"9100"})"));
        QCOMPARE(internal.value("data").toByteArray(), QByteArray("\x02\x03"));
        QCOMPARE(internal.value("requesttype"), QVariant(QStringLiteral("kitchenPrint")));
        QCOMPARE(internal.value("port"), QVariant(QStringLiteral("9100")));
        QCOMPARE(reasonOf(serviceReading(R"({"requesttype":"x","data":[1],"data":"AB"})")),
                 QStringLiteral("request \"data\" is not an array of integers 0 to 255"));
        QCOMPARE(std::get<QVariantMap>(serviceReading(R"({"requesttype":"x","data":"AB","data":[9]})"))
                     .value("data")
                     .toByteArray(),
                 QByteArray("\x09"));
        const QVariantMap nested = parsed(R"({"data":[],"x":{"a":1,"a":[true,null]}})").value("x").toMap();
        QCOMPARE(nested.value("a").toList(), (QVariantList{true, nullValue()}));
    }

    void escapedKeysAreTheKeysTheySpell() {
        const QVariantMap internal = std::get<QVariantMap>(
            serviceReading(R"({"requesttyp\u0065":"x","d\u0061ta":[7],"\u0069p":"a"})"));
        QCOMPARE(internal.value("data").toByteArray(), QByteArray("\x07"));
        QCOMPARE(internal.value("requesttype"), QVariant(QStringLiteral("x")));
        QCOMPARE(internal.value("ip"), QVariant(QStringLiteral("a")));
    }

    void emptyTextsAreEmptyNotNull() {
        const QVariantMap internal = std::get<QVariantMap>(serviceReading(R"({"requesttype":"","data":[]})"));
        QCOMPARE(internal.value("requesttype").typeId(), QMetaType::QString);
        QVERIFY(!internal.value("requesttype").toString().isNull()); // as QJsonDocument gives it
        QCOMPARE(internal.value("data").toByteArray().size(), 0);
    }

    // The limit counts every value, scalars included, from 0 for the top-level object.
    void nestingIsLimitedTo512Levels() {
        const auto nested = [](int arrays) {
            return R"({"requesttype":"x","data":[],"v":)" + QString(arrays, u'[') + "1" +
                   QString(arrays, u']') + "}";
        };
        QVERIFY(!parseFails(nested(511))); // the 1 is 512 deep
        QVERIFY(parseFails(nested(512)));
        QVERIFY(!parseFails(R"({"requesttype":"x","data":[],"v":)" + QString(512, u'[') + QString(512, u']') +
                            "}"));
        QVERIFY(parseFails(R"({"requesttype":"x","data":[],"v":)" + QString(513, u'[') + QString(513, u']') +
                           "}"));
        QVERIFY(reasonOf(serviceReading(nested(512))).startsWith("request frame is not JSON"));
    }

    void refusalsSayWhy_data() {
        QTest::addColumn<QString>("frame");
        QTest::addColumn<QString>("reason");
        QTest::newRow("non-ASCII") << QStringLiteral(R"({"requesttype":"x","data":[],"m":"한"})")
                                   << "request frame contains a non-ASCII character U+D55C";
        QTest::newRow("broken text") << R"({"requesttype":"x","data":[1,]})"
                                     << "request frame is not JSON";
        // A number alone is valid JSON, but QJsonDocument only ever read objects and arrays.
        QTest::newRow("top-level number") << "12345678901234567890"
                                          << "request frame is not JSON";
        QTest::newRow("top-level string") << R"("kitchenPrint")"
                                          << "request frame is not JSON";
        QTest::newRow("top-level array") << R"([{"requesttype":"x","data":[1]}])"
                                         << "request frame is not a JSON object";
        QTest::newRow("broken top-level array") << "[1,"
                                                << "request frame is not JSON";
        QTest::newRow("value after the object") << R"({"requesttype":"x","data":[1]} {})"
                                                << "request frame is not JSON";
        QTest::newRow("no data") << R"({"requesttype":"x"})"
                                 << "request has no \"data\"";
        QTest::newRow("data not bytes") << R"({"requesttype":"x","data":[1,2,256]})"
                                        << "request \"data\" is not an array of integers 0 to 255";
        // A broken frame is refused as such even when its "data" is wrong before the fault.
        QTest::newRow("wrong data, then broken text") << R"({"requesttype":"x","data":[256],"v":1.})"
                                                      << "request frame is not JSON";
    }
    void refusalsSayWhy() {
        QFETCH(QString, frame);
        QFETCH(QString, reason);
        const QString said = reasonOf(serviceReading(frame));
        QVERIFY2(said.startsWith(reason), qPrintable(said));
    }

    void kitchenPrintNeverReadsTheInterface() {
        Interface unset;
        const auto target = routeFor(parsed(R"({"requesttype":"kitchenPrint","data":[]})"), unset.reader());
        QCOMPARE(std::get<RouteTarget>(target), RouteTarget::KitchenPrint);
        QCOMPARE(unset.reads, 0);
    }

    void terminalRequestWithoutInterfaceFails() {
        Interface unset;
        const auto target = routeFor(parsed(R"({"requesttype":"payment","data":[1]})"), unset.reader());
        QVERIFY(std::holds_alternative<RequestError>(target));
        QCOMPARE(unset.reads, 1);
    }

    void missingRequestTypeFails() {
        Interface tcp{QVariant(QStringLiteral("TCP"))};
        QVERIFY(std::holds_alternative<RequestError>(routeFor(parsed(R"({"data":[1]})"), tcp.reader())));
        QCOMPARE(tcp.reads, 0);
    }

    void interfaceChoosesTheChannel_data() {
        QTest::addColumn<QString>("requesttype");
        QTest::addColumn<QString>("interface");
        QTest::addColumn<int>("target");
        const int tcp = int(RouteTarget::TcpTerminal), usb = int(RouteTarget::UsbTerminal),
                  drop = int(RouteTarget::Drop), kitchen = int(RouteTarget::KitchenPrint);
        QTest::newRow("print on USB") << R"("print")"
                                      << "USB" << usb;
        QTest::newRow("print on TCP") << R"("print")"
                                      << "TCP" << tcp;
        QTest::newRow("BT is dropped") << R"("print")"
                                       << "BT" << drop;
        QTest::newRow("tcp lower case is dropped") << R"("print")"
                                                   << "tcp" << drop;
        QTest::newRow("Usb mixed case is dropped") << R"("print")"
                                                   << "Usb" << drop;
        QTest::newRow("blank around USB is dropped") << R"("print")"
                                                     << " USB" << drop;
        QTest::newRow("empty interface is dropped") << R"("print")"
                                                    << "" << drop;
        QTest::newRow("KitchenPrint capital K is a terminal request") << R"("KitchenPrint")"
                                                                      << "USB" << usb;
        QTest::newRow("number 5 goes to the channel") << "5"
                                                      << "TCP" << tcp;
        QTest::newRow("null goes to the channel") << "null"
                                                  << "TCP" << tcp;
        QTest::newRow("kitchenPrint wins whatever the interface") << R"("kitchenPrint")"
                                                                  << "BT" << kitchen;
    }
    void interfaceChoosesTheChannel() {
        QFETCH(QString, requesttype);
        QFETCH(QString, interface);
        QFETCH(int, target);
        Interface setting{QVariant(interface)};
        const auto result =
            routeFor(parsed(R"({"data":[1],"requesttype":)" + requesttype + "}"), setting.reader());
        QVERIFY(std::holds_alternative<RouteTarget>(result));
        QCOMPARE(int(std::get<RouteTarget>(result)), target);
    }
};

QTEST_APPLESS_MAIN(RequestTest)
#include "tst_request.moc"
