// Which hosts may deliver a card terminal's answer, from TERMINAL_ANSWER_PEERS, and how
// often a refused one is named.
#include "terminal_tcp/answerpeers.h"

#include <QtTest>

class AnswerPeersTest : public QObject {
    Q_OBJECT

private slots:
    void entries_data() {
        QTest::addColumn<QStringList>("entries");
        QTest::addColumn<QString>("peer");
        QTest::addColumn<QString>("terminal"); // "" when TCP_IP is unset
        QTest::addColumn<bool>("allowed");
        QTest::newRow("the terminal") << QStringList{"TCP_IP"} << "192.168.0.9"
                                      << "192.168.0.9" << true;
        QTest::newRow("another host") << QStringList{"TCP_IP"} << "192.168.0.66"
                                      << "192.168.0.9" << false;
        QTest::newRow("no terminal set") << QStringList{"TCP_IP"} << "192.168.0.9"
                                         << "" << false;
        QTest::newRow("mapped address") << QStringList{"TCP_IP"} << "::ffff:192.168.0.9"
                                        << "192.168.0.9" << true;
        QTest::newRow("address") << QStringList{"192.168.0.20"} << "192.168.0.20"
                                 << "" << true;
        QTest::newRow("other address") << QStringList{"192.168.0.20"} << "192.168.0.21"
                                       << "" << false;
        QTest::newRow("range") << QStringList{"192.168.0.0/24"} << "192.168.0.250"
                               << "" << true;
        QTest::newRow("outside the range") << QStringList{"192.168.0.0/24"} << "192.168.1.1"
                                           << "" << false;
        QTest::newRow("IPv6 range") << QStringList{"fd00::/64"} << "fd00::5"
                                    << "" << true;
        QTest::newRow("any of several") << QStringList{"10.0.0.1", "TCP_IP"} << "192.168.0.9"
                                        << "192.168.0.9" << true;
        QTest::newRow("a name allows nothing") << QStringList{"terminal.local"} << "192.168.0.9"
                                               << "" << false;
        QTest::newRow("a bad range allows nothing") << QStringList{"192.168.0.0/33"} << "192.168.0.9"
                                                    << "" << false;
        QTest::newRow("the word is written as it is") << QStringList{"tcp_ip"} << "192.168.0.9"
                                                      << "192.168.0.9" << false;
    }
    void entries() {
        QFETCH(QStringList, entries);
        QFETCH(QString, peer);
        QFETCH(QString, terminal);
        QFETCH(bool, allowed);
        const AnswerPeers peers(entries);
        const std::optional<QHostAddress> at =
            terminal.isEmpty() ? std::nullopt : std::optional<QHostAddress>(QHostAddress(terminal));
        QCOMPARE(peers.allows(QHostAddress(peer), at), allowed);
    }

    void invalidEntriesAreNamed() {
        const AnswerPeers peers({"TCP_IP", "terminal.local", "10.0.0.0/8", "10.0.0.300", "192.168.0.0/33"});
        QCOMPARE(peers.invalidEntries(), (QStringList{"terminal.local", "10.0.0.300", "192.168.0.0/33"}));
        QVERIFY(AnswerPeers::isValidEntry("TCP_IP"));
        QVERIFY(AnswerPeers::isValidEntry("fe80::1"));
        QVERIFY(!AnswerPeers::isValidEntry(""));
    }

    void aRefusedHostIsNamedOnceAMinute() {
        RefusedPeers refused;
        QVERIFY(refused.note("10.0.0.3", 0));
        QVERIFY(!refused.note("10.0.0.3", 1000));
        QVERIFY(refused.note("10.0.0.4", 1000));
        QVERIFY(!refused.note("10.0.0.3", 59'999));
        QVERIFY(refused.note("10.0.0.3", 60'000));
    }

    void manyHostsAtOnceCostABoundedTable() {
        RefusedPeers refused;
        for (int i = 0; i < RefusedPeers::remembered; ++i)
            QVERIFY(refused.note(QStringLiteral("10.1.%1.%2").arg(i / 256).arg(i % 256), 0));
        // Full, none of them a minute old: a new host is not named, and not remembered.
        QVERIFY(!refused.note("10.9.9.9", 30'000));
        QVERIFY(!refused.note("10.1.0.0", 30'000));
        // A minute on, the table makes room.
        QVERIFY(refused.note("10.9.9.9", 60'000));
    }
};

QTEST_GUILESS_MAIN(AnswerPeersTest)
#include "tst_answerpeers.moc"
