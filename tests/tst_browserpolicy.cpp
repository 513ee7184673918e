// The browsers' policy files that let a POS page from a public site open the service without
// a prompt: written into folders of the test's own (TERANOCOUNTER_POLICY_ROOT), as a browser
// would read them, and the real `teranocounter --browser-policy` as a shop owner runs it.
#include "common/userdefaults.h"
#include "serviceprocess.h"
#include "shell/browserpolicy.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>
#include <cerrno>
#include <cstring>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString rootVariable = QStringLiteral("TERANOCOUNTER_POLICY_ROOT");
const QString pos = QStringLiteral("https://pos.example.com");
const QString lanPos = QStringLiteral("http://192.168.0.20:8080");

// Where Chromium, Google Chrome, Microsoft Edge and Brave read their managed policies.
const QStringList realFolders{"/etc/chromium/policies/managed", "/etc/opt/chrome/policies/managed",
                              "/etc/opt/edge/policies/managed", "/etc/brave/policies/managed"};
const QStringList browserNames{"Chromium", "Google Chrome", "Microsoft Edge", "Brave"};

QString policyFile(const QString &root, qsizetype browser) {
    return root + realFolders[browser] + QStringLiteral("/teranocounter.json");
}

int modeOf(const QString &path) {
    struct stat status {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return -1;
    return int(status.st_mode & 07777);
}

// What the browser reads: the error says why it is not the one object with the one key.
QString readPolicy(const QString &path, QStringList *origins) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return path + QStringLiteral(": ") + file.errorString();
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return path + QStringLiteral(": not a JSON object");
    const QJsonObject object = document.object();
    if (object.keys() != QStringList{QStringLiteral("LocalNetworkAccessAllowedForUrls")})
        return path + QStringLiteral(": keys ") + object.keys().join(u',');
    const QJsonValue list = object.value(QStringLiteral("LocalNetworkAccessAllowedForUrls"));
    if (!list.isArray())
        return path + QStringLiteral(": not an array");
    origins->clear();
    for (const QJsonValue &entry : list.toArray()) {
        if (!entry.isString())
            return path + QStringLiteral(": an entry is not a string");
        *origins << entry.toString();
    }
    return {};
}

QStringList entriesUnder(const QString &root) {
    QStringList found;
    QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        found << it.next();
    return found;
}

// How the real policy folders stand, to see that a test left them alone.
QStringList realFoldersState() {
    QStringList state;
    for (qsizetype i = 0; i < realFolders.size(); ++i) {
        const QFileInfo folder(realFolders[i]);
        const QFileInfo file(policyFile(QString(), i));
        state << QStringLiteral("%1 %2 %3 %4 %5")
                     .arg(folder.filePath())
                     .arg(folder.exists())
                     .arg(file.exists())
                     .arg(file.size())
                     .arg(file.lastModified().toMSecsSinceEpoch());
    }
    return state;
}

QStringList linesOf(const QByteArray &bytes) {
    QStringList lines = QString::fromUtf8(bytes).split(u'\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

} // namespace

class BrowserPolicyTest : public QObject {
    Q_OBJECT
    QString readOnlyMount; // a folder this test mounted read-only, to be let go

private slots:
    void cleanup() {
        if (!readOnlyMount.isEmpty())
            ::umount2(QFile::encodeName(readOnlyMount).constData(), MNT_DETACH);
        readOnlyMount.clear();
    }

    void eachBrowserGetsTheListReadableByAllWhateverTheUmask() {
        QTemporaryDir root;
        const mode_t saved = ::umask(077);
        const QList<BrowserPolicy::Outcome> outcomes = BrowserPolicy::write({pos, lanPos}, root.path());
        ::umask(saved);

        QCOMPARE(outcomes.size(), 4);
        for (qsizetype i = 0; i < 4; ++i) {
            QVERIFY(outcomes[i].ok);
            QCOMPARE(outcomes[i].line, QStringLiteral("%1: wrote %2 (LocalNetworkAccessAllowedForUrls: "
                                                      "https://pos.example.com, http://192.168.0.20:8080)")
                                           .arg(browserNames[i], policyFile(root.path(), i)));
            QStringList origins;
            const QString problem = readPolicy(policyFile(root.path(), i), &origins);
            QVERIFY2(problem.isEmpty(), qPrintable(problem));
            QCOMPARE(origins, QStringList({pos, lanPos}));
            QCOMPARE(modeOf(policyFile(root.path(), i)), 0644);
            // Every folder made on the way is open to the user the browser runs as.
            for (QString folder = root.path() + realFolders[i]; folder != root.path();
                 folder = QFileInfo(folder).path())
                QCOMPARE(modeOf(folder), 0755);
        }
        // Nothing else is left behind (no temporary files).
        QStringList files;
        for (const QString &entry : entriesUnder(root.path()))
            if (QFileInfo(entry).isFile())
                files << entry;
        QCOMPARE(files.size(), 4);
    }

    void aNewListReplacesTheEarlierOne() {
        QTemporaryDir root;
        for (const BrowserPolicy::Outcome &outcome : BrowserPolicy::write({pos, lanPos}, root.path()))
            QVERIFY(outcome.ok);
        for (const BrowserPolicy::Outcome &outcome :
             BrowserPolicy::write({QStringLiteral("https://shop.example:8443")}, root.path()))
            QVERIFY(outcome.ok);
        for (qsizetype i = 0; i < 4; ++i) {
            QStringList origins;
            const QString problem = readPolicy(policyFile(root.path(), i), &origins);
            QVERIFY2(problem.isEmpty(), qPrintable(problem));
            QCOMPARE(origins, QStringList{QStringLiteral("https://shop.example:8443")});
        }
    }

    void removeTakesAllFourAwayAndLeavesTheFolders() {
        QTemporaryDir root;
        for (const BrowserPolicy::Outcome &outcome : BrowserPolicy::write({pos}, root.path()))
            QVERIFY(outcome.ok);
        // The administrator's own policy in the same folder is not ours to remove.
        QFile theirs(root.path() + realFolders[0] + QStringLiteral("/shop.json"));
        QVERIFY(theirs.open(QIODevice::WriteOnly));
        theirs.write("{}");
        theirs.close();

        const QList<BrowserPolicy::Outcome> removed = BrowserPolicy::remove(root.path());
        QCOMPARE(removed.size(), 4);
        for (qsizetype i = 0; i < 4; ++i) {
            QVERIFY(removed[i].ok);
            QCOMPARE(removed[i].line,
                     QStringLiteral("%1: removed %2").arg(browserNames[i], policyFile(root.path(), i)));
            QVERIFY(!QFileInfo::exists(policyFile(root.path(), i)));
            QVERIFY(QFileInfo(root.path() + realFolders[i]).isDir());
        }
        QVERIFY(theirs.exists());

        const QList<BrowserPolicy::Outcome> again = BrowserPolicy::remove(root.path());
        for (qsizetype i = 0; i < 4; ++i) {
            QVERIFY(again[i].ok);
            QCOMPARE(again[i].line,
                     QStringLiteral("%1: no policy at %2").arg(browserNames[i], policyFile(root.path(), i)));
        }
    }

    void aReadOnlyFolderIsNamedAndTheOthersAreStillWritten() {
        QTemporaryDir root;
        for (const BrowserPolicy::Outcome &outcome : BrowserPolicy::write({lanPos}, root.path()))
            QVERIFY(outcome.ok);
        const QString edgeFolder = root.path() + realFolders[2];
        // Root writes through permission bits, so as root the folder is made a read-only mount.
        if (::geteuid() == 0) {
            const QByteArray path = QFile::encodeName(edgeFolder);
            QVERIFY2(::mount(path.constData(), path.constData(), nullptr, MS_BIND, nullptr) == 0,
                     std::strerror(errno));
            readOnlyMount = edgeFolder;
            QVERIFY2(::mount(nullptr, path.constData(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) ==
                         0,
                     std::strerror(errno));
        } else {
            QVERIFY(QFile::setPermissions(edgeFolder, QFile::ReadOwner | QFile::ExeOwner));
        }

        const QList<BrowserPolicy::Outcome> outcomes = BrowserPolicy::write({pos}, root.path());
        if (::geteuid() != 0)
            QFile::setPermissions(edgeFolder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QCOMPARE(outcomes.size(), 4);
        QVERIFY(!outcomes[2].ok);
        const QString prefix =
            QStringLiteral("Microsoft Edge: cannot write %1: ").arg(policyFile(root.path(), 2));
        QVERIFY2(outcomes[2].line.startsWith(prefix) && outcomes[2].line.size() > prefix.size(),
                 qPrintable(outcomes[2].line));
        QVERIFY(!outcomes[2].line.contains(u'\n'));
        for (const qsizetype i : {0, 1, 3}) {
            QVERIFY(outcomes[i].ok);
            QStringList origins;
            QVERIFY(readPolicy(policyFile(root.path(), i), &origins).isEmpty());
            QCOMPARE(origins, QStringList{pos});
        }
        // Edge keeps its earlier list whole.
        QStringList origins;
        QVERIFY(readPolicy(policyFile(root.path(), 2), &origins).isEmpty());
        QCOMPARE(origins, QStringList{lanPos});
    }

    void commandsArePastedSafely() {
        QCOMPARE(BrowserPolicy::shellQuoted(pos), pos);
        QCOMPARE(BrowserPolicy::shellQuoted(QStringLiteral("/opt/my apps/teranocounter")),
                 QStringLiteral("'/opt/my apps/teranocounter'"));
        QCOMPARE(BrowserPolicy::shellQuoted(QStringLiteral("it's")), QStringLiteral("'it'\\''s'"));
        QCOMPARE(BrowserPolicy::shellQuoted(QStringLiteral("http://[::1]:8080")),
                 QStringLiteral("'http://[::1]:8080'"));
        QCOMPARE(BrowserPolicy::commandFor({pos, lanPos}),
                 QStringLiteral("sudo teranocounter --browser-policy https://pos.example.com "
                                "http://192.168.0.20:8080"));
    }

    // --- The real executable ---

    void originsNoBrowserSendsAreRefusedAndNothingIsWritten_data() {
        QTest::addColumn<QStringList>("origins");
        QTest::addColumn<QString>("line");
        QTest::newRow("trailing slash")
            << QStringList{"https://pos.example.com/"}
            << R"(teranocounter: --browser-policy: a browser sends "https://pos.example.com/" as )"
               R"("https://pos.example.com": write that)";
        QTest::newRow("path") << QStringList{"https://pos.example.com/pos"}
                              << R"(teranocounter: --browser-policy: a browser sends )"
                                 R"("https://pos.example.com/pos" as "https://pos.example.com": write that)";
        QTest::newRow("upper case")
            << QStringList{"https://POS.example.com"}
            << R"(teranocounter: --browser-policy: a browser sends )"
               R"("https://POS.example.com" as "https://pos.example.com": write that)";
        QTest::newRow("default port")
            << QStringList{"https://pos.example.com:443"}
            << R"(teranocounter: --browser-policy: a browser sends )"
               R"("https://pos.example.com:443" as "https://pos.example.com": write that)";
        QTest::newRow("no scheme")
            << QStringList{"pos.example.com"}
            << R"(teranocounter: --browser-policy: "pos.example.com" is not an origin: )"
               R"(an origin is scheme://host or scheme://host:port, as in )"
               R"(http://192.168.0.20:8080)";
        QTest::newRow("a good one first")
            << QStringList{pos, "https://pos.example.com/"}
            << R"(teranocounter: --browser-policy: a browser sends )"
               R"("https://pos.example.com/" as "https://pos.example.com": write that)";
        QTest::newRow("null") << QStringList{"null"}
                              << "teranocounter: --browser-policy: null cannot be named in a policy; "
                                 "a local file's page needs none";
    }

    void originsNoBrowserSendsAreRefusedAndNothingIsWritten() {
        QFETCH(QStringList, origins);
        QFETCH(QString, line);
        QTemporaryDir root;
        ServiceProcess service;
        service.extraEnvironment.insert(rootVariable, root.path());
        QByteArray out;
        QByteArray err;
        QCOMPARE(service.runToEnd(QStringList{"--browser-policy"} + origins, &out, &err), 2);
        QCOMPARE(out, QByteArray());
        QCOMPARE(linesOf(err), QStringList{line});
        QCOMPARE(entriesUnder(root.path()), QStringList());
    }

    void withoutOriginsTheAllowedOnesAreTaken() {
        QTemporaryDir root;
        ServiceProcess service;
        service.extraEnvironment.insert(rootVariable, root.path());
        service.set("WEBSOCKET_ALLOWED_ORIGINS", pos + ",null," + lanPos);
        QByteArray out;
        QByteArray err;
        QCOMPARE(service.runToEnd({"--browser-policy"}, &out, &err), 0);
        QCOMPARE(err, QByteArray());
        QStringList expected;
        for (qsizetype i = 0; i < 4; ++i)
            expected << QStringLiteral(
                            "%1: wrote %2 (LocalNetworkAccessAllowedForUrls: https://pos.example.com, "
                            "http://192.168.0.20:8080)")
                            .arg(browserNames[i], policyFile(root.path(), i));
        QCOMPARE(linesOf(out), expected);
        for (qsizetype i = 0; i < 4; ++i) {
            QStringList origins;
            const QString problem = readPolicy(policyFile(root.path(), i), &origins);
            QVERIFY2(problem.isEmpty(), qPrintable(problem));
            QCOMPARE(origins, QStringList({pos, lanPos})); // null names no site
        }

        // Named on the command line, the origins replace the list whatever the settings say.
        QCOMPARE(service.runToEnd({"--browser-policy", "https://shop.example:8443"}, &out, &err), 0);
        QStringList origins;
        QVERIFY(readPolicy(policyFile(root.path(), 3), &origins).isEmpty());
        QCOMPARE(origins, QStringList{"https://shop.example:8443"});

        QCOMPARE(service.runToEnd({"--browser-policy", "--remove"}, &out, &err), 0);
        QCOMPARE(err, QByteArray());
        expected.clear();
        for (qsizetype i = 0; i < 4; ++i)
            expected << QStringLiteral("%1: removed %2").arg(browserNames[i], policyFile(root.path(), i));
        QCOMPARE(linesOf(out), expected);
    }

    void withoutOriginsAndNoneAllowedTheOwnerIsToldToNameOne() {
        QTemporaryDir root;
        ServiceProcess service;
        service.extraEnvironment.insert(rootVariable, root.path());
        QByteArray out;
        QByteArray err;
        QCOMPARE(service.runToEnd({"--browser-policy"}, &out, &err), 2);
        QCOMPARE(out, QByteArray());
        QCOMPARE(linesOf(err),
                 QStringList{"teranocounter: --browser-policy: no origin given and "
                             "WEBSOCKET_ALLOWED_ORIGINS lists none: name the POS page's origin, "
                             "as in --browser-policy https://pos.example.com"});
        QCOMPARE(entriesUnder(root.path()), QStringList());
    }

    void aWriteThatFailsIsSaidAndTheExitStatusIsOne() {
        QTemporaryDir root;
        // Brave's folder cannot be made: a file stands where it would go.
        QVERIFY(QDir().mkpath(root.path() + "/etc"));
        QFile blocker(root.path() + "/etc/brave");
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        ServiceProcess service;
        service.extraEnvironment.insert(rootVariable, root.path());
        QByteArray out;
        QByteArray err;
        QCOMPARE(service.runToEnd({"--browser-policy", pos}, &out, &err), 1);
        QCOMPARE(linesOf(out).size(), 3);
        QCOMPARE(linesOf(err),
                 QStringList{QStringLiteral("teranocounter: Brave: cannot write %1: %2/etc/brave is "
                                            "not a folder")
                                 .arg(policyFile(root.path(), 3), root.path())});
        for (qsizetype i = 0; i < 3; ++i)
            QVERIFY(QFileInfo::exists(policyFile(root.path(), i)));
    }

    void withoutRootTheSudoCommandIsGivenAndNothingWritten() {
        const QStringList before = realFoldersState();
        ServiceProcess service;
        service.set("WEBSOCKET_ALLOWED_ORIGINS", pos + "," + lanPos);
        const QString program = QFileInfo(QStringLiteral(TERANOCOUNTER_BIN)).canonicalFilePath();

        // Run as the shop's cashier would: an ordinary user, with no prefix for the folders.
        const bool asRoot = ::geteuid() == 0;
        if (asRoot) {
            // The user must be able to read its own settings.
            for (QString path = service.settingsFile(); path != QFileInfo(service.home()).path();
                 path = QFileInfo(path).path())
                QVERIFY2(::chown(QFile::encodeName(path).constData(), 65534, 65534) == 0,
                         std::strerror(errno));
        }
        auto runAsUser = [&](const QStringList &arguments, QByteArray *out, QByteArray *err) {
            QProcess process;
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.remove(rootVariable);
            env.insert("HOME", service.home());
            env.insert("XDG_CONFIG_HOME", service.configHome());
            env.insert("XDG_STATE_HOME", service.stateHome());
            env.remove("XDG_RUNTIME_DIR");
            process.setProcessEnvironment(env);
            if (asRoot)
                process.start("setpriv", QStringList{"--reuid=65534", "--regid=65534", "--clear-groups",
                                                     QStringLiteral(TERANOCOUNTER_BIN)} +
                                             arguments);
            else
                process.start(QStringLiteral(TERANOCOUNTER_BIN), arguments);
            if (!process.waitForFinished(30000))
                return -1;
            *out = process.readAllStandardOutput();
            *err = process.readAllStandardError();
            return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        };
        const QString needsRoot = QStringLiteral("teranocounter: --browser-policy writes the browsers' "
                                                 "policies under /etc, which needs root: run ");

        QByteArray out;
        QByteArray err;
        QCOMPARE(runAsUser({"--browser-policy", pos}, &out, &err), 2);
        QCOMPARE(out, QByteArray());
        QCOMPARE(linesOf(err), QStringList{needsRoot + "sudo " + program + " --browser-policy " + pos});

        // sudo reads root's settings, not the user's: the user's origins are spelt out.
        QCOMPARE(runAsUser({"--browser-policy"}, &out, &err), 2);
        QCOMPARE(out, QByteArray());
        QCOMPARE(linesOf(err),
                 QStringList{needsRoot + "sudo " + program + " --browser-policy " + pos + " " + lanPos});

        QCOMPARE(runAsUser({"--browser-policy", "--remove"}, &out, &err), 2);
        QCOMPARE(linesOf(err), QStringList{needsRoot + "sudo " + program + " --browser-policy --remove"});

        QCOMPARE(realFoldersState(), before);
    }
};

QTEST_GUILESS_MAIN(BrowserPolicyTest)
#include "tst_browserpolicy.moc"
