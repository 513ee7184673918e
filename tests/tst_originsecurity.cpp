// The rules behind the gateway's origin list and the kitchen printer list, without a
// server: which origins a browser could send, which refusals get a line, which printer
// destinations an entry lets through.
#include "common/userdefaults.h"
#include "gateway/originpolicy.h"
#include "gateway/refusedorigins.h"
#include "kitchen/printerallowlist.h"

#include <QTemporaryDir>
#include <QtTest>

class OriginSecurityTest : public QObject {
    Q_OBJECT
    QTemporaryDir config;

private slots:
    void initTestCase() { qputenv("XDG_CONFIG_HOME", QFile::encodeName(config.path())); }

    void cleanup() {
        UserDefaults::standard().remove(QStringLiteral("WEBSOCKET_ALLOWED_ORIGINS"));
        UserDefaults::standard().remove(QStringLiteral("WEBSOCKET_PIN_FIRST_ORIGIN"));
    }

    void anOriginIsPrintedOnceAMinute() {
        RefusedOrigins refused;
        const QDateTime at = QDateTime::currentDateTime();
        QVERIFY(refused.note(QStringLiteral("http://ad.example"), 1'000, at));
        QVERIFY(!refused.note(QStringLiteral("http://ad.example"), 2'000, at));
        QVERIFY(!refused.note(QStringLiteral("http://ad.example"), 60'999, at));
        QVERIFY(refused.note(QStringLiteral("http://other.example"), 61'000, at)); // its own minute
        QVERIFY(refused.note(QStringLiteral("http://ad.example"), 61'000, at));    // a minute after
        QVERIFY(!refused.note(QStringLiteral("http://ad.example"), 61'001, at));
    }

    void manyOriginsAreCappedPerMinute() {
        RefusedOrigins refused;
        const QDateTime at = QDateTime::currentDateTime();
        int printed = 0;
        for (int i = 0; i < 100; ++i)
            printed += refused.note(QStringLiteral("http://s%1.ad.example").arg(i), 5'000 + i, at);
        QCOMPARE(printed, RefusedOrigins::maxLinesPerMinute);
        QVERIFY(refused.note(QStringLiteral("http://late.ad.example"), 65'000, at));
    }

    void theLatestRefusedComeFirstEachOnce() {
        RefusedOrigins refused;
        const QDateTime at = QDateTime::currentDateTime();
        for (int i = 0; i < 8; ++i)
            refused.note(QStringLiteral("http://o%1.example").arg(i), i, at);
        refused.note(QStringLiteral("http://o5.example"), 100, at);
        QStringList shown;
        for (const RefusedOrigins::Entry &entry : refused.latest())
            shown << entry.origin;
        QCOMPARE(shown, QStringList({"http://o5.example", "http://o7.example", "http://o6.example",
                                     "http://o4.example", "http://o3.example"}));
    }

    void oddOriginsAreShownOnOneShortLine() {
        QCOMPARE(RefusedOrigins::shown(QStringLiteral("http://a\r\nb")).count(u'\n'), 0);
        QCOMPARE(RefusedOrigins::shown(QString()), QStringLiteral("\"\""));
        QCOMPARE(RefusedOrigins::shown(QString(500, u'x')).size(), RefusedOrigins::longestShown + 3);
    }

    void originsAsBrowsersSendThem_data() {
        QTest::addColumn<QString>("origin");
        QTest::addColumn<bool>("fine");
        QTest::newRow("host and port") << "http://192.168.0.20:8080" << true;
        QTest::newRow("https name") << "https://pos.example" << true;
        QTest::newRow("IPv6") << "http://[::1]:3000" << true;
        QTest::newRow("local file") << "null" << true;
        QTest::newRow("trailing slash") << "http://pos.example/" << false;
        QTest::newRow("path") << "http://pos.example/pos.html" << false;
        QTest::newRow("upper case") << "http://POS.example" << false;
        QTest::newRow("default port") << "http://pos.example:80" << false;
        QTest::newRow("no scheme") << "pos.example" << false;
        QTest::newRow("comma") << "http://a.example,http://b.example" << false;
        QTest::newRow("space") << "http://a.example " << false;
    }

    void originsAsBrowsersSendThem() {
        QFETCH(QString, origin);
        QFETCH(bool, fine);
        const std::optional<QString> problem = OriginPolicy::originProblem(origin);
        QVERIFY2(problem.has_value() != fine, qPrintable(problem.value_or(QStringLiteral("no problem"))));
        if (problem)
            QVERIFY(!problem->contains(u'\n'));
    }

    void allowingAddsToTheListAndClearingOpensIt() {
        QVERIFY(OriginPolicy::allows(QStringLiteral("http://any.example")));
        QVERIFY(OriginPolicy::allowOrigin(QStringLiteral("http://pos.local:8080")));
        QVERIFY(!OriginPolicy::allowOrigin(QStringLiteral("http://pos.local:8080")));
        QVERIFY(OriginPolicy::allowOrigin(QStringLiteral("https://pos.example")));
        QCOMPARE(UserDefaults::standard().string(QStringLiteral("WEBSOCKET_ALLOWED_ORIGINS")),
                 std::optional<QString>(QStringLiteral("http://pos.local:8080,https://pos.example")));
        QVERIFY(OriginPolicy::allows(QStringLiteral("https://pos.example")));
        QVERIFY(!OriginPolicy::allows(QStringLiteral("http://any.example")));
        QVERIFY(!OriginPolicy::allows(QString()));
        OriginPolicy::clearAllowedOrigins();
        QVERIFY(!UserDefaults::standard().value(QStringLiteral("WEBSOCKET_ALLOWED_ORIGINS")));
        QVERIFY(OriginPolicy::allows(QStringLiteral("http://any.example")));
    }

    void pinFirstIsOnlyTrue() {
        QVERIFY(!OriginPolicy::pinFirstOrigin());
        UserDefaults::standard().setValue(QStringLiteral("WEBSOCKET_PIN_FIRST_ORIGIN"),
                                          QStringLiteral("yes"));
        QVERIFY(!OriginPolicy::pinFirstOrigin());
        UserDefaults::standard().setValue(QStringLiteral("WEBSOCKET_PIN_FIRST_ORIGIN"),
                                          QStringLiteral(" TRUE "));
        QVERIFY(OriginPolicy::pinFirstOrigin());
    }

    void printerEntries_data() {
        QTest::addColumn<QString>("address");
        QTest::addColumn<int>("port");
        QTest::addColumn<bool>("allowed");
        // The list: one printer on any port, one printer on one port, one subnet, one name.
        QTest::newRow("address, any port") << "192.168.0.50" << 9100 << true;
        QTest::newRow("address, other port") << "192.168.0.50" << 22 << true;
        QTest::newRow("address:port") << "192.168.0.60" << 9100 << true;
        QTest::newRow("address:other port") << "192.168.0.60" << 9101 << false;
        QTest::newRow("in the range") << "10.1.2.200" << 9100 << true;
        QTest::newRow("outside the range") << "10.1.3.1" << 9100 << false;
        QTest::newRow("mapped IPv6 of the printer") << "::ffff:192.168.0.50" << 9100 << true;
        QTest::newRow("unlisted address") << "192.168.0.51" << 9100 << false;
        QTest::newRow("router") << "192.168.0.1" << 80 << false;
        QTest::newRow("name") << "Kitchen.local" << 9100 << true;
        QTest::newRow("name, other port") << "kitchen.local" << 9200 << false;
        QTest::newRow("unlisted name") << "bar.local" << 9100 << false;
        QTest::newRow("address of no entry as name") << "192.168.0.60.example" << 9100 << false;
    }

    void printerEntries() {
        QFETCH(QString, address);
        QFETCH(int, port);
        QFETCH(bool, allowed);
        const PrinterAllowList list(
            {"192.168.0.50", "192.168.0.60:9100", "10.1.2.0/24", "kitchen.local:9100"});
        QVERIFY(list.invalidEntries().isEmpty());
        QCOMPARE(list.allows(address, static_cast<quint16>(port)), allowed);
    }

    void badPrinterEntriesAllowNothing() {
        const PrinterAllowList list({"192.168.0.60:99999", "10.0.0.0/33", "no such thing!", "[::1"});
        QCOMPARE(list.invalidEntries().size(), 4);
        QVERIFY(!list.allows(QStringLiteral("192.168.0.60"), 9100));
        QVERIFY(!list.allows(QStringLiteral("10.0.0.1"), 9100));
        QVERIFY(!list.allows(QStringLiteral("::1"), 9100));
    }

    void unsetOrBlankListAllowsEverything() {
        QVERIFY(!PrinterAllowList::fromSettings());
        UserDefaults::standard().setValue(QStringLiteral("KITCHEN_ALLOWED_PRINTERS"), QStringLiteral(" , "));
        QVERIFY(!PrinterAllowList::fromSettings());
        UserDefaults::standard().setValue(QStringLiteral("KITCHEN_ALLOWED_PRINTERS"),
                                          QStringLiteral("127.0.0.1:9100"));
        QVERIFY(PrinterAllowList::fromSettings());
        UserDefaults::standard().remove(QStringLiteral("KITCHEN_ALLOWED_PRINTERS"));
    }
};

QTEST_APPLESS_MAIN(OriginSecurityTest)
#include "tst_originsecurity.moc"
