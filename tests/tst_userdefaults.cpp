#include "common/userdefaults.h"
#include "forked.h"
#include "processusage.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QLockFile>
#include <QTemporaryDir>
#include <QtTest>

class UserDefaultsTest : public QObject {
    Q_OBJECT
    QTemporaryDir config;

    // A file Qt's write would wait 30 s for is `leftover`: it must be gone as soon as the
    // settings are opened, before any write could wait for it, and the next write must land,
    // its own lock gone after it. No clock: a test that timed the write would measure the machine.
    static void leftoverIsClearedBeforeTheNextWrite(const QString &leftover, const QString &address) {
        QVERIFY(QFile::exists(leftover));
        UserDefaults::standard().fileName(); // opens the settings, as every read and write does
        QVERIFY(!QFile::exists(leftover));
        UserDefaults::standard().setValue(QStringLiteral("TCP_IP"), address);
        QCOMPARE(UserDefaults::standard().string(QStringLiteral("TCP_IP")), std::optional<QString>(address));
        QVERIFY(!QFile::exists(UserDefaults::standard().fileName() + QStringLiteral(".lock")));
    }

private slots:
    void initTestCase() {
        QVERIFY(config.isValid());
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(config.path()));
    }

    void fileIsWhereTheServiceDocumentsIt() {
        QCOMPARE(UserDefaults::standard().fileName(),
                 config.path() + QStringLiteral("/teranocounter/teranocounter.conf"));
    }

    void writeIsOnDiskAtOnce() {
        UserDefaults::standard().setValue(QStringLiteral("MAIN_INTERFACE"), QStringLiteral("TCP"));
        QFile file(UserDefaults::standard().fileName());
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray contents = file.readAll();
        QVERIFY2(contents.contains("[General]"), contents.constData());
        QVERIFY2(contents.contains("MAIN_INTERFACE=TCP"), contents.constData());
        QCOMPARE(UserDefaults::standard().string(QStringLiteral("MAIN_INTERFACE")),
                 std::optional<QString>(QStringLiteral("TCP")));
    }

    void absentKeyHasNoValue() { QVERIFY(!UserDefaults::standard().value(QStringLiteral("NEVER_WRITTEN"))); }

    void changeMadeByAnotherWriterIsSeenOnTheNextRead() {
        UserDefaults::standard().setValue(QStringLiteral("MAIN_INTERFACE"), QStringLiteral("TCP"));
        // Another process (teranocounter --set, or an editor) rewrites the file.
        QFile file(UserDefaults::standard().fileName());
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write("[General]\nMAIN_INTERFACE=USB\nBAUD_RATE=9600\n");
        // Make sure the modification time differs from the last write.
        QVERIFY(file.setFileTime(QDateTime::currentDateTime().addSecs(5), QFileDevice::FileModificationTime));
        file.close();
        QCOMPARE(UserDefaults::standard().string(QStringLiteral("MAIN_INTERFACE")),
                 std::optional<QString>(QStringLiteral("USB")));
        QCOMPARE(UserDefaults::standard().string(QStringLiteral("BAUD_RATE")),
                 std::optional<QString>(QStringLiteral("9600")));
    }

    // A writer killed between creating the lock file and writing its process id into it
    // leaves an empty lock. Qt would wait for it to be 30 s old before taking it.
    void emptyLockLeftByAKilledWriterDoesNotHoldUpTheNextWrite() {
        const QString lock = UserDefaults::standard().fileName() + QStringLiteral(".lock");
        QFile empty(lock);
        QVERIFY(empty.open(QIODevice::WriteOnly));
        empty.close();
        leftoverIsClearedBeforeTheNextWrite(lock, QStringLiteral("10.1.2.3"));
    }

    // Qt removes a lock whose owner has ended, under a second lock (".rmlock"); a writer killed
    // inside that removal leaves that one empty, and the next write would wait 30 s for it.
    void emptyRemovalLockBesideADeadOwnersLockDoesNotHoldUpTheNextWrite() {
        const QString lock = UserDefaults::standard().fileName() + QStringLiteral(".lock");
        const ChildOutcome child = runInChild([&] {
            QLockFile held(lock);
            if (held.tryLock(0))
                _exit(0); // ends holding it: the lock names a process that is gone
            _exit(1);
        });
        QVERIFY(child.exitedNormally);
        QCOMPARE(child.exitCode, 0);
        QVERIFY(QFileInfo(lock).size() > 0);
        QFile emptyRemovalLock(lock + QStringLiteral(".rmlock"));
        QVERIFY(emptyRemovalLock.open(QIODevice::WriteOnly));
        emptyRemovalLock.close();
        leftoverIsClearedBeforeTheNextWrite(lock + QStringLiteral(".rmlock"), QStringLiteral("10.1.2.4"));
    }

    void removeForgetsTheKey() {
        UserDefaults::standard().setValue(QStringLiteral("TCP_IP"), QStringLiteral("192.168.0.7"));
        UserDefaults::standard().remove(QStringLiteral("TCP_IP"));
        QVERIFY(!UserDefaults::standard().value(QStringLiteral("TCP_IP")));
        QVERIFY(!UserDefaults::standard().keys().contains(QStringLiteral("TCP_IP")));
    }

    void folderAndFileArePrivateToTheUser() {
        const QString file = UserDefaults::standard().fileName();
        const QString folder = QFileInfo(file).absolutePath();
        // As an earlier release left them.
        QVERIFY(QFile::setPermissions(folder, QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                                  QFileDevice::ExeOwner | QFileDevice::ReadGroup |
                                                  QFileDevice::ExeGroup | QFileDevice::ReadOther |
                                                  QFileDevice::ExeOther));
        UserDefaults::standard().setValue(QStringLiteral("TCP_IP"), QStringLiteral("192.168.0.7"));
        QVERIFY(QFile::setPermissions(file, QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                                QFileDevice::ReadGroup | QFileDevice::ReadOther));
        UserDefaults::standard().setValue(QStringLiteral("TCP_IP"), QStringLiteral("192.168.0.8"));
        const auto groupAndOther = QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ExeGroup |
                                   QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther;
        QCOMPARE(QFileInfo(folder).permissions() & groupAndOther, QFileDevice::Permissions());
        QCOMPARE(QFileInfo(file).permissions() & groupAndOther, QFileDevice::Permissions());
        QVERIFY(QFileInfo(file).permissions().testFlag(QFileDevice::WriteOwner));
    }

    // Only a file that is not settings at all is kept aside: whatever an editor leaves in
    // one that is stays where it is.
    void handEditedFileIsReadWhereItIs() {
        const QString file = UserDefaults::standard().fileName();
        {
            QFile edited(file);
            QVERIFY(edited.open(QIODevice::WriteOnly | QIODevice::Truncate));
            edited.write(
                "\xef\xbb\xbf; the shop's counter\r\n[General]\r\n\r\n# terminal\r\nTCP_IP=192.168.0.9\r\n"
                "KITCHEN_ALLOWED_PRINTERS=192.168.0.50, \\\r\n  192.168.0.51\r\n");
            QVERIFY(edited.setFileTime(QDateTime::currentDateTime().addSecs(20),
                                       QFileDevice::FileModificationTime));
        }
        QCOMPARE(UserDefaults::standard().string(QStringLiteral("TCP_IP")),
                 std::optional<QString>(QStringLiteral("192.168.0.9")));
        QCOMPARE(QDir(QFileInfo(file).absolutePath()).entryList({QStringLiteral("*.unreadable-*")}),
                 QStringList());
    }

    // Reads do not load the file again while it is the same: one that changed the file's
    // change time (a chmod, say) would make every later read load it afresh.
    void readsOfAnUnchangedFileDoNotLoadItAgain() {
        UserDefaults::standard().setValue(QStringLiteral("NOTE"), QString(16 * 1024, u'n'));
        QVERIFY(UserDefaults::standard().value(QStringLiteral("NOTE")));
        const qint64 before = ProcessUsage::bytesRead(QCoreApplication::applicationPid());
        // For long enough that the file system's clock (a few milliseconds a tick) moves on.
        QElapsedTimer clock;
        clock.start();
        int reads = 0;
        for (; clock.elapsed() < 100 || reads < 100; ++reads)
            QVERIFY(UserDefaults::standard().value(QStringLiteral("NOTE")));
        const qint64 read = ProcessUsage::bytesRead(QCoreApplication::applicationPid()) - before;
        QVERIFY2(read < 16 * 1024,
                 qPrintable(QStringLiteral("%1 bytes read for %2 reads").arg(read).arg(reads)));
        UserDefaults::standard().remove(QStringLiteral("NOTE"));
    }

    void listReadsCommaTextAndHandEditedLists() {
        UserDefaults &defaults = UserDefaults::standard();
        QVERIFY(!defaults.list(QStringLiteral("NEVER_WRITTEN")));
        defaults.setValue(QStringLiteral("SOME_LIST"), QStringLiteral(" a ,b,, c "));
        QCOMPARE(defaults.list(QStringLiteral("SOME_LIST")), std::optional<QStringList>({"a", "b", "c"}));
        defaults.setValue(QStringLiteral("SOME_LIST"), QString());
        QCOMPARE(defaults.list(QStringLiteral("SOME_LIST")), std::optional<QStringList>(QStringList()));
        // An editor's unquoted "x, y" is read back by QSettings as a string list.
        QFile file(defaults.fileName());
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write("[General]\nSOME_LIST=x, y\n");
        QVERIFY(file.setFileTime(QDateTime::currentDateTime().addSecs(7), QFileDevice::FileModificationTime));
        file.close();
        QCOMPARE(defaults.value(QStringLiteral("SOME_LIST"))->typeId(), QMetaType::QStringList);
        QCOMPARE(defaults.list(QStringLiteral("SOME_LIST")), std::optional<QStringList>({"x", "y"}));
        defaults.remove(QStringLiteral("SOME_LIST"));
    }
};

QTEST_APPLESS_MAIN(UserDefaultsTest)
#include "tst_userdefaults.moc"
