#include "pendingstore.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>
#include <sys/stat.h>

namespace {

int modeOf(const QString &path) {
    struct stat info {};
    if (stat(QFile::encodeName(path).constData(), &info) != 0)
        return -1;
    return static_cast<int>(info.st_mode & 07777);
}

} // namespace

class PendingStoreTest : public QObject {
    Q_OBJECT
    QTemporaryDir dir;
    QString path() const { return dir.filePath("state/teranocounter/pending.sqlite"); }

private slots:
    void init() { QDir(dir.filePath("state")).removeRecursively(); }

    void answersComeBackOldestFirstAndGoWhenRemoved() {
        PendingStore store(path());
        QVERIFY2(store.isOpen(), qPrintable(store.errorString()));
        const qint64 first = store.addAnswer(R"({"response":{"data":"승인"}})", 1000);
        const qint64 second = store.addAnswer(R"({"n":2})", 2000);
        QVERIFY(first > 0 && second > first);
        QList<PendingStore::Answer> answers = store.answers();
        QCOMPARE(answers.size(), 2);
        QCOMPARE(answers[0].json, QByteArray(R"({"response":{"data":"승인"}})"));
        QCOMPARE(answers[0].storedAtMs, 1000);
        QCOMPARE(answers[1].json, QByteArray(R"({"n":2})"));
        QVERIFY(store.removeAnswer(first));
        answers = store.answers();
        QCOMPARE(answers.size(), 1);
        QCOMPARE(answers[0].id, second);
    }

    void ordersKeepEveryByteAndTheirPrinter() {
        PendingStore store(path());
        QVERIFY(store.isOpen());
        const QByteArray payload("\xc1\xd6\xb9\xae\x00\x1b@\n", 8);
        store.addOrder("192.168.0.50", 9100, payload, 5);
        store.addOrder("kitchen.local", 65535, "B", 6);
        const QList<PendingStore::Order> orders = store.orders();
        QCOMPARE(orders.size(), 2);
        QCOMPARE(orders[0].address, QStringLiteral("192.168.0.50"));
        QCOMPARE(orders[0].port, quint16(9100));
        QCOMPARE(orders[0].payload, payload);
        QCOMPARE(orders[0].arrivedAtMs, 5);
        QCOMPARE(orders[1].port, quint16(65535));
        QVERIFY(store.removeOrder(orders[0].id));
        QCOMPARE(store.orders().size(), 1);
    }

    void whatWasStoredIsThereAfterReopening() {
        {
            PendingStore store(path());
            store.addAnswer("kept", 1);
            store.addOrder("10.0.0.1", 9100, "order", 2);
        }
        PendingStore reopened(path());
        QCOMPARE(reopened.answers().size(), 1);
        QCOMPARE(reopened.answers().first().json, QByteArray("kept"));
        QCOMPARE(reopened.orders().first().payload, QByteArray("order"));
    }

    void fileIsPrivateAndWrittenThroughALog() {
        PendingStore store(path());
        store.addAnswer("secret", 1);
        QCOMPARE(modeOf(path()), 0600);
        QVERIFY(QFileInfo::exists(path() + "-wal"));
        QCOMPARE(modeOf(path() + "-wal"), 0600);
    }

    void existingFileIsMadePrivate() {
        QVERIFY(QDir().mkpath(QFileInfo(path()).absolutePath()));
        QFile loose(path());
        QVERIFY(loose.open(QIODevice::WriteOnly));
        loose.close();
        QVERIFY(loose.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther));
        PendingStore store(path());
        QVERIFY2(store.isOpen(), qPrintable(store.errorString()));
        QCOMPARE(modeOf(path()), 0600);
    }

    void folderInItsPlaceCannotBeOpened() {
        QVERIFY(QDir().mkpath(path()));
        PendingStore store(path());
        QVERIFY(!store.isOpen());
        QVERIFY(!store.errorString().isEmpty());
        QCOMPARE(store.addAnswer("x", 1), 0);
        QVERIFY(store.answers().isEmpty());
    }

    void agesReadAsAPersonWouldSayThem_data() {
        QTest::addColumn<qint64>("ms");
        QTest::addColumn<QString>("text");
        QTest::newRow("under a second") << qint64(999) << "0 s";
        QTest::newRow("seconds") << qint64(45'000) << "45 s";
        QTest::newRow("minutes") << qint64(192'000) << "3 min 12 s";
        QTest::newRow("hours") << qint64(90'180'000) << "25 h 3 min";
        QTest::newRow("clock set back") << qint64(-5000) << "0 s";
    }
    void agesReadAsAPersonWouldSayThem() {
        QFETCH(qint64, ms);
        QFETCH(QString, text);
        QCOMPARE(describeAge(ms), text);
    }
};

QTEST_GUILESS_MAIN(PendingStoreTest)
#include "tst_pendingstore.moc"
