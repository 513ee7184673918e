#include "shell/commandline.h"

#include <QProcess>
#include <QRegularExpression>
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

    void anOriginListIsCheckedEntryByEntry() {
        const CommandLine slash = parseCommandLine(
            {"teranocounter", "--set", "WEBSOCKET_ALLOWED_ORIGINS=http://pos.example,http://x/"});
        QVERIFY2(slash.error.startsWith("--set WEBSOCKET_ALLOWED_ORIGINS: "), qPrintable(slash.error));
        QVERIFY(slash.error.contains("http://x/"));
        QVERIFY(slash.settingsToWrite.isEmpty());
        QVERIFY(!parseCommandLine({"teranocounter", "--set", "WEBSOCKET_ALLOWED_ORIGINS=HTTP://POS.EXAMPLE"})
                     .error.isEmpty());
        QVERIFY(
            !parseCommandLine({"teranocounter", "--set", "WEBSOCKET_ALLOWED_ORIGINS=http://pos.example:80"})
                 .error.isEmpty());
        const CommandLine fine =
            parseCommandLine({"teranocounter", "--set",
                              "WEBSOCKET_ALLOWED_ORIGINS= http://pos.example , https://a.example:8443,"});
        QVERIFY(fine.error.isEmpty());
        QVERIFY(fine.warnings.isEmpty());
        QCOMPARE(fine.settingsToWrite.size(), 1);
        // Blank clears the list, as before; other keys are not origins.
        QVERIFY(parseCommandLine({"teranocounter", "--set", "WEBSOCKET_ALLOWED_ORIGINS="}).error.isEmpty());
        QVERIFY(parseCommandLine({"teranocounter", "--set", "TCP_IP=http://x/"}).error.isEmpty());
    }

    void nullIsTakenWithAWarning() {
        const QString warning = QStringLiteral(
            "WEBSOCKET_ALLOWED_ORIGINS lists null: local files and the sandboxed frames of any site send the "
            "origin null, so a page of any site can connect");
        const CommandLine allow = parseCommandLine({"teranocounter", "--allow-origin", "null"});
        QVERIFY(allow.error.isEmpty());
        QCOMPARE(allow.originsToAllow, QStringList{"null"});
        QCOMPARE(allow.warnings, QStringList{warning});
        const CommandLine set =
            parseCommandLine({"teranocounter", "--set", "WEBSOCKET_ALLOWED_ORIGINS=null,http://pos.example"});
        QVERIFY(set.error.isEmpty());
        QCOMPARE(set.warnings, QStringList{warning});
        QVERIFY(
            parseCommandLine({"teranocounter", "--allow-origin", "http://pos.example"}).warnings.isEmpty());
    }

    void browserPolicyTakesOriginsUpToTheNextOption() {
        const CommandLine line = parseCommandLine(
            {"teranocounter", "--browser-policy", "https://pos.example.com", "http://192.168.0.20:8080"});
        QVERIFY(line.error.isEmpty());
        QVERIFY(line.browserPolicy);
        QVERIFY(!line.removeBrowserPolicy);
        QCOMPARE(line.policyOrigins, QStringList({"https://pos.example.com", "http://192.168.0.20:8080"}));

        const CommandLine none = parseCommandLine({"teranocounter", "--browser-policy"});
        QVERIFY(none.error.isEmpty());
        QVERIFY(none.browserPolicy && none.policyOrigins.isEmpty());

        const CommandLine remove = parseCommandLine({"teranocounter", "--browser-policy", "--remove"});
        QVERIFY(remove.error.isEmpty());
        QVERIFY(remove.browserPolicy && remove.removeBrowserPolicy);
    }

    void browserPolicyMistakesAreReported() {
        QCOMPARE(parseCommandLine({"teranocounter", "--browser-policy", "https://pos.example.com/"}).error,
                 QStringLiteral("--browser-policy: a browser sends \"https://pos.example.com/\" as "
                                "\"https://pos.example.com\": write that"));
        QCOMPARE(parseCommandLine({"teranocounter", "--remove"}).error,
                 QStringLiteral("--remove goes with --browser-policy"));
        QCOMPARE(
            parseCommandLine({"teranocounter", "--browser-policy", "https://pos.example.com", "--remove"})
                .error,
            QStringLiteral("--browser-policy --remove takes no origins"));
        QCOMPARE(parseCommandLine({"teranocounter", "--browser-policy", "--lock-down"}).error,
                 QStringLiteral("--browser-policy goes alone (with --remove or its origins)"));
    }

    void versionIsParsedAndListedInTheHelp() {
        const CommandLine line = parseCommandLine({"teranocounter", "--version"});
        QVERIFY(line.error.isEmpty());
        QVERIFY(line.version);
        QVERIFY(!parseCommandLine({"teranocounter"}).version);
        QVERIFY(usageText().contains("--version"));
        QVERIFY(usageText().contains("--help"));
    }

    void versionPrintsTheProjectVersion() {
        // What a user sees: the real executable prints one line and succeeds.
        QProcess program;
        program.start(QStringLiteral(TERANOCOUNTER_BIN), {QStringLiteral("--version")});
        QVERIFY(program.waitForFinished(10000));
        QCOMPARE(program.exitStatus(), QProcess::NormalExit);
        QCOMPARE(program.exitCode(), 0);
        const QString said = QString::fromUtf8(program.readAllStandardOutput());
        QCOMPARE(said, versionText());
        QVERIFY(program.readAllStandardError().isEmpty());
        // The project version from CMake, then, between releases, where the build stands in
        // git: "teranocounter 0.1~git130.fbe1f16".
        const QRegularExpression form(
            QStringLiteral("^teranocounter %1([~+]git[0-9]+\\.[0-9a-f]{7,})?\n$")
                .arg(QRegularExpression::escape(QStringLiteral(TERANO_PROJECT_VERSION))));
        QVERIFY2(form.match(said).hasMatch(), qPrintable(said));
    }
};

QTEST_APPLESS_MAIN(CommandLineTest)
#include "tst_commandline.moc"
