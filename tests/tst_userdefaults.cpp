#include "userdefaults.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

class UserDefaultsTest : public QObject {
    Q_OBJECT
    QTemporaryDir config;

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

    void removeForgetsTheKey() {
        UserDefaults::standard().setValue(QStringLiteral("TCP_IP"), QStringLiteral("192.168.0.7"));
        UserDefaults::standard().remove(QStringLiteral("TCP_IP"));
        QVERIFY(!UserDefaults::standard().value(QStringLiteral("TCP_IP")));
        QVERIFY(!UserDefaults::standard().keys().contains(QStringLiteral("TCP_IP")));
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
