#include "commandline.h"

#include <QtTest>

class CommandLineTest : public QObject {
    Q_OBJECT
private slots:
    void noArgumentsRunsTheService() {
        const CommandLine line = parseCommandLine({"teranocounter"});
        QVERIFY(line.error.isEmpty());
        QVERIFY(!line.headless);
        QVERIFY(line.settingsToWrite.isEmpty());
        QVERIFY(!line.printSettings);
    }

    void headlessAndRepeatedSet() {
        const CommandLine line = parseCommandLine({"teranocounter", "--set", "MAIN_INTERFACE=TCP",
                                                   "--set=TCP_IP=192.168.0.7", "--settings", "--headless"});
        QVERIFY(line.error.isEmpty());
        QVERIFY(line.headless);
        QVERIFY(line.printSettings);
        QCOMPARE(line.settingsToWrite.size(), 2);
        QCOMPARE(line.settingsToWrite[0], (QPair<QString, QString>{"MAIN_INTERFACE", "TCP"}));
        QCOMPARE(line.settingsToWrite[1], (QPair<QString, QString>{"TCP_IP", "192.168.0.7"}));
    }

    void valueMayContainEqualsAndBeEmpty() {
        const CommandLine line = parseCommandLine({"teranocounter", "--set", "A=b=c", "--set", "EMPTY="});
        QCOMPARE(line.settingsToWrite[0].second, QStringLiteral("b=c"));
        QCOMPARE(line.settingsToWrite[1].second, QString());
    }

    void mistakesAreReported() {
        QVERIFY(!parseCommandLine({"teranocounter", "--set"}).error.isEmpty());
        QVERIFY(!parseCommandLine({"teranocounter", "--set", "NOVALUE"}).error.isEmpty());
        QVERIFY(!parseCommandLine({"teranocounter", "--set", "=x"}).error.isEmpty());
        QVERIFY(parseCommandLine({"teranocounter", "--bogus"}).error.contains("--bogus"));
    }

    void pendingAndClear() {
        const CommandLine list = parseCommandLine({"teranocounter", "--pending"});
        QVERIFY(list.error.isEmpty());
        QVERIFY(list.listPending);
        QVERIFY(!list.clearPending);
        const CommandLine clear = parseCommandLine({"teranocounter", "--pending", "--clear"});
        QVERIFY(clear.listPending && clear.clearPending);
        QVERIFY(parseCommandLine({"teranocounter", "--clear"}).error.contains("--pending"));
    }

    void allowOriginAndItsClearing() {
        const CommandLine line =
            parseCommandLine({"teranocounter", "--allow-origin", "http://192.168.0.20:8080",
                              "--allow-origin=https://pos.example", "--allow-origin", ""});
        QVERIFY(line.error.isEmpty());
        QCOMPARE(line.originsToAllow, QStringList({"http://192.168.0.20:8080", "https://pos.example", ""}));
    }

    void allowOriginThatNoBrowserSendsIsRefused() {
        QVERIFY(parseCommandLine({"teranocounter", "--allow-origin"}).error.contains("--allow-origin"));
        const CommandLine slash =
            parseCommandLine({"teranocounter", "--allow-origin", "http://pos.example/"});
        QVERIFY(slash.error.contains("http://pos.example"));
        QVERIFY(slash.originsToAllow.isEmpty());
        QVERIFY(!parseCommandLine({"teranocounter", "--allow-origin", "pos.example"}).error.isEmpty());
    }
};

QTEST_APPLESS_MAIN(CommandLineTest)
#include "tst_commandline.moc"
