#include "terminal_tcp/ipv4rule.h"

#include <QtTest>

class Ipv4RuleTest : public QObject {
    Q_OBJECT
private slots:
    void addresses_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("usable");
        QTest::newRow("shop terminal") << "192.168.0.10" << true;
        QTest::newRow("all ones") << "255.255.255.255" << true;
        QTest::newRow("all zeros") << "0.0.0.0" << true;
        QTest::newRow("loopback") << "127.0.0.1" << true;
        QTest::newRow("two-digit and three-digit octets") << "10.99.100.249" << true;
        QTest::newRow("leading zero") << "192.168.0.01" << false;
        QTest::newRow("leading zero in the first octet") << "01.2.3.4" << false;
        QTest::newRow("zero-padded") << "192.168.000.001" << false;
        QTest::newRow("256") << "256.1.1.1" << false;
        QTest::newRow("260") << "1.1.1.260" << false;
        QTest::newRow("300") << "1.300.1.1" << false;
        QTest::newRow("three octets") << "192.168.0" << false;
        QTest::newRow("five octets") << "1.2.3.4.5" << false;
        QTest::newRow("trailing dot") << "1.2.3.4." << false;
        QTest::newRow("leading blank") << " 1.2.3.4" << false;
        QTest::newRow("trailing blank") << "1.2.3.4 " << false;
        QTest::newRow("trailing line feed") << "1.2.3.4\n" << false;
        QTest::newRow("host name") << "terminal.local" << false;
        QTest::newRow("IPv6") << "::1" << false;
        QTest::newRow("empty") << "" << false;
        QTest::newRow("full-width digits") << QStringLiteral("１.２.３.４") << false;
        QTest::newRow("sign") << "+1.2.3.4" << false;
    }
    void addresses() {
        QFETCH(QString, text);
        QFETCH(bool, usable);
        QCOMPARE(matchesIPv4Rule(text), usable);
    }
};

QTEST_APPLESS_MAIN(Ipv4RuleTest)
#include "tst_ipv4rule.moc"
