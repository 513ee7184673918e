#include "smalldisk.h"
#include "stdoutcapture.h"
#include "store/pendingstore.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
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

// Runs statements on a database file through a connection of the test's own, as another
// program (or the previous release) would have written it. Returns the first failure.
QString writeDatabase(const QString &path, const QStringList &statements) {
    QString failure;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("by hand"));
        db.setDatabaseName(path);
        if (!db.open())
            failure = QStringLiteral("open");
        QSqlQuery query(db);
        for (const QString &statement : statements)
            if (failure.isEmpty() && !query.exec(statement))
                failure = statement + QStringLiteral(": ") + query.lastError().text();
    }
    QSqlDatabase::removeDatabase(QStringLiteral("by hand"));
    return failure;
}

int userVersion(const QString &path) {
    int version = -1;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("version"));
        db.setDatabaseName(path);
        QSqlQuery query(db);
        if (db.open() && query.exec(QStringLiteral("PRAGMA user_version")) && query.next())
            version = query.value(0).toInt();
    }
    QSqlDatabase::removeDatabase(QStringLiteral("version"));
    return version;
}

QByteArray contentsOf(const QString &path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// The tables exactly as the release before the schema version wrote them.
const QStringList previousRelease{
    QStringLiteral("PRAGMA journal_mode=WAL"),
    QStringLiteral("CREATE TABLE IF NOT EXISTS answers (id INTEGER PRIMARY KEY AUTOINCREMENT, stored_at "
                   "INTEGER NOT NULL, json BLOB NOT NULL)"),
    QStringLiteral("CREATE TABLE IF NOT EXISTS orders (id INTEGER PRIMARY KEY AUTOINCREMENT, arrived_at "
                   "INTEGER NOT NULL, address TEXT NOT NULL, port INTEGER NOT NULL, payload BLOB NOT NULL)")};

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

    void aHundredAndTwentyAnswersLeaveTheNewestHundred() {
        PendingStore store(path());
        QVERIFY(store.isOpen());
        const qint64 now = PendingStore::nowMs();
        StdoutCapture out;
        for (int i = 1; i <= 120; ++i)
            QVERIFY(store.addAnswer(QStringLiteral("answer %1").arg(i, 3, 10, QChar(u'0')).toUtf8(),
                                    now - (121 - i) * 60'000) > 0);
        const QList<PendingStore::Answer> answers = store.answers();
        QCOMPARE(answers.size(), 100);
        QCOMPARE(answers.first().json, QByteArray("answer 021"));
        QCOMPARE(answers.last().json, QByteArray("answer 120"));
        // One line per answer dropped, when the 101st and each after it arrived: its age
        // (answer 1 had waited 2 hours) and its size, never what it said.
        const QStringList lines = out.lines();
        QCOMPARE(lines.size(), 20);
        const QRegularExpression dropped(QStringLiteral(
            R"(^held terminal answers are kept 100 at most: the oldest, waiting (\d+ h \d+ min) \(10 bytes\), was dropped unread$)"));
        const QRegularExpressionMatch first = dropped.match(lines.first());
        QVERIFY2(first.hasMatch(), qPrintable(lines.first()));
        QVERIFY2(first.captured(1).startsWith(QLatin1String("2 h ")), qPrintable(lines.first()));
        for (const QString &line : lines)
            QVERIFY2(dropped.match(line).hasMatch() &&
                         !line.contains(QRegularExpression(QStringLiteral("answer \\d"))),
                     qPrintable(line));
        PendingStore reopened(path());
        QCOMPARE(reopened.answers().size(), 100);
    }

    void storeOfThePreviousReleaseIsKeptAndStamped() {
        QVERIFY(QDir().mkpath(QFileInfo(path()).absolutePath()));
        QCOMPARE(
            writeDatabase(path(), previousRelease +
                                      QStringList{QStringLiteral("INSERT INTO answers (stored_at, json) "
                                                                 "VALUES (7, 'kept answer')"),
                                                  QStringLiteral("INSERT INTO orders (arrived_at, address, "
                                                                 "port, payload) VALUES (8, '10.0.0.9', "
                                                                 "9100, 'kept order')")}),
            QString());
        QCOMPARE(userVersion(path()), 0);
        StdoutCapture out;
        {
            PendingStore store(path());
            QVERIFY2(store.isOpen(), qPrintable(store.errorString()));
            QCOMPARE(store.answers().size(), 1);
            QCOMPARE(store.answers().first().json, QByteArray("kept answer"));
            QCOMPARE(store.orders().first().payload, QByteArray("kept order"));
        }
        QCOMPARE(out.lines(), QStringList());
        QCOMPARE(userVersion(path()), PendingStore::schemaVersion);
        QVERIFY(PendingStore(path()).setAsideFiles().isEmpty());
    }

    void storeOfThePreviousReleaseWithThousandsOfAnswersKeepsTheNewestHundred() {
        QVERIFY(QDir().mkpath(QFileInfo(path()).absolutePath()));
        QCOMPARE(writeDatabase(path(), previousRelease +
                                           QStringList{QStringLiteral(
                                               "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT "
                                               "i + 1 FROM n WHERE i < 3000) INSERT INTO answers "
                                               "(stored_at, json) SELECT i, printf('%04d', i) FROM n")}),
                 QString());
        StdoutCapture out;
        PendingStore store(path());
        QVERIFY(store.isOpen());
        const QList<PendingStore::Answer> answers = store.answers();
        QCOMPARE(answers.size(), 100);
        QCOMPARE(answers.first().json, QByteArray("2901"));
        QCOMPARE(out.lines().size(), 1);
        QVERIFY2(
            out.lines().first().startsWith(QLatin1String(
                "held terminal answers are kept 100 at most: the 2900 oldest, waiting up to ")) &&
                out.lines().first().endsWith(QLatin1String(" (11600 bytes in all), were dropped unread")),
            qPrintable(out.lines().first()));
    }

    void unusableFileIsSetAsideAndAFreshStoreKeepsTheNextOrder_data() {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("reason");
        QTest::newRow("garbage") << "garbage"
                                 << "file is not a database";
        QTest::newRow("cut short") << "truncated"
                                   << "database disk image is malformed";
        QTest::newRow("foreign tables") << "foreign"
                                        << "its tables are not the ones Terano Counter writes";
        QTest::newRow("an extra table") << "extra"
                                        << "its tables are not the ones Terano Counter writes";
        QTest::newRow("a newer release") << "newer"
                                         << "its schema version is 2, this release writes 1";
    }
    void unusableFileIsSetAsideAndAFreshStoreKeepsTheNextOrder() {
        QFETCH(QString, kind);
        QFETCH(QString, reason);
        QVERIFY(QDir().mkpath(QFileInfo(path()).absolutePath()));
        if (kind == QLatin1String("garbage")) {
            QFile f(path());
            QVERIFY(f.open(QIODevice::WriteOnly));
            f.write(QByteArray("not a database at all, but a file someone copied here\n").repeated(100));
        } else if (kind == QLatin1String("truncated")) {
            {
                PendingStore store(path());
                for (int i = 0; i < 60; ++i)
                    store.addOrder("10.0.0.1", 9100, QByteArray(700, 'x'), i);
            } // closed: everything is in the main file now
            QVERIFY(!QFileInfo::exists(path() + "-wal"));
            QVERIFY(QFile::resize(path(), QFileInfo(path()).size() / 2));
        } else if (kind == QLatin1String("foreign")) {
            QCOMPARE(
                writeDatabase(path(), {QStringLiteral("CREATE TABLE answers (id INTEGER PRIMARY KEY, body "
                                                      "TEXT)"),
                                       QStringLiteral("CREATE TABLE orders (n)"),
                                       QStringLiteral("INSERT INTO answers (body) VALUES ('theirs')")}),
                QString());
        } else if (kind == QLatin1String("extra")) {
            QCOMPARE(writeDatabase(path(),
                                   previousRelease + QStringList{QStringLiteral("CREATE TABLE notes (t)")}),
                     QString());
        } else {
            QCOMPARE(writeDatabase(path(),
                                   previousRelease + QStringList{QStringLiteral("PRAGMA user_version = 2")}),
                     QString());
        }
        const QByteArray before = contentsOf(path());

        StdoutCapture out;
        PendingStore store(path());
        QVERIFY2(store.isOpen(), qPrintable(store.errorString()));
        const QStringList lines = out.lines();
        QCOMPARE(lines.size(), 1);
        const QRegularExpression setAside(
            QStringLiteral(
                "^pending store %1 cannot be used \\((.*)\\): set aside as (%1\\.corrupt-\\d{8}T\\d{6}Z), a "
                "fresh store is used$")
                .arg(QRegularExpression::escape(path())));
        const QRegularExpressionMatch match = setAside.match(lines.first());
        QVERIFY2(match.hasMatch(), qPrintable(lines.first()));
        QCOMPARE(match.captured(1), reason);
        QCOMPARE(contentsOf(match.captured(2)), before);
        QCOMPARE(store.setAsideFiles(), QStringList{match.captured(2)});

        QVERIFY(store.answers().isEmpty() && store.orders().isEmpty());
        QVERIFY(store.addOrder("10.0.0.2", 9100, "NEXT ORDER\n", 1) > 0);
        PendingStore reopened(path());
        QCOMPARE(reopened.orders().size(), 1);
        QCOMPARE(reopened.orders().first().payload, QByteArray("NEXT ORDER\n"));
        QCOMPARE(userVersion(path()), PendingStore::schemaVersion);
    }

    void lookingAtAnUnusableFileNamesWhyAndLeavesItBe() {
        QVERIFY(QDir().mkpath(QFileInfo(path()).absolutePath()));
        QCOMPARE(
            writeDatabase(path(), {QStringLiteral("CREATE TABLE answers (id INTEGER PRIMARY KEY, body TEXT)"),
                                   QStringLiteral("INSERT INTO answers (body) VALUES ('theirs')")}),
            QString());
        const QByteArray before = contentsOf(path());
        StdoutCapture out;
        PendingStore store(path(), PendingStore::Use::Inspect);
        QVERIFY(!store.isOpen());
        QVERIFY(store.isUnusable());
        QCOMPARE(store.errorString(), QStringLiteral("its tables are not the ones Terano Counter writes"));
        QCOMPARE(contentsOf(path()), before);
        QVERIFY(store.setAsideFiles().isEmpty());
        QCOMPARE(out.lines(), QStringList());
    }

    void removalRefusedByAFullDiskIsRememberedAndRetried() {
        QVERIFY2(geteuid() == 0, "this test mounts a small tmpfs and needs root (CI runs as root)");
        SmallDisk disk(dir.filePath("state"), 256 * 1024);
        QVERIFY2(disk.isMounted(), qPrintable(disk.error()));
        PendingStore store(path());
        QVERIFY2(store.isOpen(), qPrintable(store.errorString()));
        const qint64 answer = store.addAnswer("approved", 1);
        const qint64 order = store.addOrder("10.0.0.1", 9100, "ORDER\n", 2);
        const qint64 later = store.addOrder("10.0.0.1", 9100, "LATER\n", 3);
        QVERIFY(answer > 0 && order > 0 && later > 0);
        QVERIFY2(disk.fill(), qPrintable(disk.error()));

        StdoutCapture out;
        QVERIFY(!store.removeAnswer(answer));
        QVERIFY(!store.removeOrder(order));
        QVERIFY(!store.removeOrder(order)); // said once
        // Delivered, so gone for whoever asks what waits, though the rows are still there.
        QVERIFY(store.answers().isEmpty());
        QCOMPARE(store.orders().size(), 1);
        QCOMPARE(store.orders().first().id, later);
        QCOMPARE(PendingStore(path(), PendingStore::Use::Inspect).orders().size(), 2);
        QCOMPARE(store.addOrder("10.0.0.1", 9100, "NOT KEPT\n", 4), 0);
        QVERIFY2(store.errorString().contains(QLatin1String("full")), qPrintable(store.errorString()));
        const QStringList lines = out.lines();
        QCOMPARE(lines.size(), 2);
        QVERIFY2(
            lines[0].startsWith(
                QLatin1String("pending store: a delivered terminal answer could not be removed (")) &&
                lines[0].endsWith(QLatin1String("): it is not delivered again, and its removal is retried")),
            qPrintable(lines[0]));
        QVERIFY2(lines[1].startsWith(
                     QLatin1String("pending store: a printed kitchen order could not be removed (")),
                 qPrintable(lines[1]));

        QVERIFY(disk.makeRoom());
        PendingStore looking(path(), PendingStore::Use::Inspect);
        QTRY_VERIFY_WITH_TIMEOUT(looking.answers().isEmpty() && looking.orders().size() == 1, 5000);
        QCOMPARE(looking.orders().first().payload, QByteArray("LATER\n"));
        QCOMPARE(out.lines().size(), 2);
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
