#include "request.h"

#include <QtTest>

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

struct Interface {
    std::optional<QVariant> value;
    int reads = 0;
    std::function<std::optional<QVariant>()> reader() {
        return [this] {
            ++reads;
            return value;
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
        const int tcp = int(RouteTarget::TCPcontrol), usb = int(RouteTarget::USBcontrol),
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
