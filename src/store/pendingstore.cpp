#include "pendingstore.h"

#include "common/log.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTimer>
#include <QVariant>
#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::atomic<int> connectionCounter{0};
std::unique_ptr<PendingStore> sharedStore;

// SQLite's primary result codes for a file that is not a database (SQLITE_NOTADB) and for
// one whose pages do not hold together (SQLITE_CORRUPT).
constexpr int sqliteCorrupt = 11;
constexpr int sqliteNotADatabase = 26;

const QString answersTable = QStringLiteral("answers");
const QString ordersTable = QStringLiteral("orders");

const QString createAnswers =
    QStringLiteral("CREATE TABLE IF NOT EXISTS answers ("
                   "id INTEGER PRIMARY KEY AUTOINCREMENT, stored_at INTEGER NOT NULL, "
                   "json BLOB NOT NULL)");
const QString createOrders =
    QStringLiteral("CREATE TABLE IF NOT EXISTS orders ("
                   "id INTEGER PRIMARY KEY AUTOINCREMENT, arrived_at INTEGER NOT NULL, "
                   "address TEXT NOT NULL, port INTEGER NOT NULL, payload BLOB NOT NULL)");

// The columns as PRAGMA table_info reports them for the statements above: name, declared
// type, NOT NULL, part of the primary key.
struct Column {
    QString name;
    QString type;
    bool notNull;
    bool key;
    bool operator==(const Column &) const = default;
};
const QList<Column> answerColumns{{QStringLiteral("id"), QStringLiteral("INTEGER"), false, true},
                                  {QStringLiteral("stored_at"), QStringLiteral("INTEGER"), true, false},
                                  {QStringLiteral("json"), QStringLiteral("BLOB"), true, false}};
const QList<Column> orderColumns{{QStringLiteral("id"), QStringLiteral("INTEGER"), false, true},
                                 {QStringLiteral("arrived_at"), QStringLiteral("INTEGER"), true, false},
                                 {QStringLiteral("address"), QStringLiteral("TEXT"), true, false},
                                 {QStringLiteral("port"), QStringLiteral("INTEGER"), true, false},
                                 {QStringLiteral("payload"), QStringLiteral("BLOB"), true, false}};

bool isDamage(const QSqlError &error) {
    const int code = error.nativeErrorCode().toInt() & 0xff; // extended codes keep the primary below
    return code == sqliteCorrupt || code == sqliteNotADatabase;
}

// SQLite's own words ("file is not a database"), without Qt's "Unable to fetch row".
QString reasonOf(const QSqlError &error) {
    return singleLine(error.databaseText().isEmpty() ? error.text() : error.databaseText());
}

QString stateHome() {
    const QString configured = qEnvironmentVariable("XDG_STATE_HOME");
    if (!configured.isEmpty() && QDir::isAbsolutePath(configured))
        return configured;
    return QDir::homePath() + QStringLiteral("/.local/state");
}

// The file is made private before SQLite ever writes to it; SQLite gives its -wal and
// -shm files the same mode.
bool createPrivateFile(const QString &path, QString *error) {
    const QByteArray native = QFile::encodeName(path);
    const int fd = ::open(native.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        *error = QString::fromLocal8Bit(strerror(errno));
        return false;
    }
    const int changed = ::fchmod(fd, 0600);
    ::close(fd);
    if (changed != 0) {
        *error = QString::fromLocal8Bit(strerror(errno));
        return false;
    }
    return true;
}

} // namespace

QString PendingStore::defaultPath() {
    return stateHome() + QStringLiteral("/teranocounter/pending.sqlite");
}

PendingStore *PendingStore::shared() {
    static bool tried = false;
    if (!tried) {
        tried = true;
        auto candidate = std::make_unique<PendingStore>(defaultPath());
        if (candidate->isOpen()) {
            sharedStore = std::move(candidate);
            // Closed with the application, while Qt still has its database connections: they
            // are gone by the time static objects are destroyed.
            if (QCoreApplication::instance())
                qAddPostRoutine([] { sharedStore.reset(); });
        } else
            logLine(
                singleLine(QStringLiteral("pending store %1 cannot be opened: %2; undelivered answers and "
                                          "kitchen orders are not kept")
                               .arg(candidate->path(), candidate->errorString())));
    }
    return sharedStore.get();
}

qint64 PendingStore::nowMs() {
    return QDateTime::currentMSecsSinceEpoch();
}

PendingStore::PendingStore(const QString &path, Use use)
    : file(path), connectionName(QStringLiteral("pending-%1").arg(connectionCounter++)), use(use) {
    open = openDatabase();
    if (open)
        error.clear();
}

PendingStore::~PendingStore() {
    {
        QSqlDatabase db = QSqlDatabase::database(connectionName, false);
        if (db.isOpen())
            db.close();
    }
    QSqlDatabase::removeDatabase(connectionName);
}

bool PendingStore::openDatabase() {
    if (!prepareFile())
        return false;
    if (!QSqlDatabase::isDriverAvailable(QStringLiteral("QSQLITE"))) {
        error = QStringLiteral("Qt's SQLite driver is not installed (Debian package libqt6sql6-sqlite)");
        return false;
    }
    QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), connectionName).setDatabaseName(file);
    switch (connectAndCheck()) {
    case Fit::Usable:
        break;
    case Fit::Failed:
        return false;
    case Fit::Unusable:
        // What is in it cannot be delivered anyway; keeping it in the way would lose every
        // answer and order from now on. It is kept beside the fresh store for whoever looks.
        if (use == Use::Inspect) {
            unusable = true;
            return false;
        }
        if (!setAside() || !prepareFile())
            return false;
        if (connectAndCheck() != Fit::Usable)
            return false;
        break;
    }
    if (use == Use::Inspect)
        return true;
    if (!writeLayout())
        return false;
    trimAnswers();
    return true;
}

bool PendingStore::prepareFile() {
    if (!QDir().mkpath(QFileInfo(file).absolutePath())) {
        error = QStringLiteral("cannot create its folder");
        return false;
    }
    if (QFileInfo(file).isDir()) {
        error = QStringLiteral("a folder is in its place");
        return false;
    }
    return createPrivateFile(file, &error);
}

// Opens the connection and judges the file before anything is written to it.
PendingStore::Fit PendingStore::connectAndCheck() {
    QSqlDatabase db = QSqlDatabase::database(connectionName, false);
    if (!db.open()) {
        error = reasonOf(db.lastError());
        return isDamage(db.lastError()) ? Fit::Unusable : Fit::Failed;
    }
    // A file cut short opens, and fails only when a missing page is read: all of it is read
    // now, which for a store of a few hundred rows is nothing.
    QSqlQuery check(db);
    if (!check.exec(QStringLiteral("PRAGMA quick_check"))) {
        error = reasonOf(check.lastError());
        return isDamage(check.lastError()) ? Fit::Unusable : Fit::Failed;
    }
    if (check.next() && check.value(0).toString() != QLatin1String("ok")) {
        error = singleLine(QStringLiteral("it fails SQLite's check: ") + check.value(0).toString());
        return Fit::Unusable;
    }
    check.finish(); // a statement left open would hold a read transaction
    const Fit fit = checkLayout();
    if (fit != Fit::Usable || use == Use::Inspect)
        return fit;
    // Only now: switching a file to the write-ahead log writes its header, and a file that is
    // set aside stays exactly as it was found.
    QSqlQuery journal(db);
    if (!journal.exec(QStringLiteral("PRAGMA journal_mode=WAL")) || !journal.next()) {
        error = reasonOf(journal.lastError());
        return isDamage(journal.lastError()) ? Fit::Unusable : Fit::Failed;
    }
    if (journal.value(0).toString().compare(QLatin1String("wal"), Qt::CaseInsensitive) != 0) {
        error = QStringLiteral("it cannot keep a write-ahead log: ") + reasonOf(journal.lastError());
        return Fit::Failed;
    }
    if (!exec(QStringLiteral("PRAGMA synchronous=FULL")))
        return Fit::Failed;
    return Fit::Usable;
}

PendingStore::Fit PendingStore::checkLayout() {
    QSqlDatabase db = QSqlDatabase::database(connectionName, false);
    QSqlQuery query(db);
    if (!query.exec(QStringLiteral("PRAGMA user_version")) || !query.next()) {
        error = reasonOf(query.lastError());
        return isDamage(query.lastError()) ? Fit::Unusable : Fit::Failed;
    }
    version = query.value(0).toInt();
    if (version < 0 || version > schemaVersion) {
        error = QStringLiteral("its schema version is %1, this release writes %2")
                    .arg(version)
                    .arg(schemaVersion);
        return Fit::Unusable;
    }
    if (!query.exec(QStringLiteral("SELECT type, name FROM sqlite_master"))) {
        error = reasonOf(query.lastError());
        return isDamage(query.lastError()) ? Fit::Unusable : Fit::Failed;
    }
    const QString foreign = QStringLiteral("its tables are not the ones Terano Counter writes");
    QStringList tables;
    while (query.next()) {
        const QString type = query.value(0).toString();
        const QString name = query.value(1).toString();
        if (type != QLatin1String("table") ||
            (name != answersTable && name != ordersTable && name != QLatin1String("sqlite_sequence"))) {
            error = foreign;
            return Fit::Unusable;
        }
        tables << name;
    }
    hasAnswers = tables.contains(answersTable);
    hasOrders = tables.contains(ordersTable);
    for (const auto &[table, expected] :
         {std::pair{answersTable, answerColumns}, {ordersTable, orderColumns}}) {
        if (!tables.contains(table))
            continue;
        QList<Column> columns;
        if (!query.exec(QStringLiteral("PRAGMA table_info(%1)").arg(table))) {
            error = reasonOf(query.lastError());
            return Fit::Failed;
        }
        while (query.next())
            columns.append({query.value(1).toString(), query.value(2).toString().toUpper(),
                            query.value(3).toInt() != 0, query.value(5).toInt() != 0});
        if (columns != expected) {
            error = foreign;
            return Fit::Unusable;
        }
    }
    return Fit::Usable;
}

bool PendingStore::setAside() {
    QSqlDatabase::database(connectionName, false).close();
    const QString why = error;
    const QString base = file + QStringLiteral(".corrupt-") +
                         QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd'T'HHmmss'Z'"));
    QString target = base;
    for (int n = 2; QFileInfo::exists(target); ++n)
        target = base + u'-' + QString::number(n);
    QFile damaged(file);
    if (!damaged.rename(target)) {
        error = QStringLiteral("%1, and it cannot be set aside: %2").arg(why, damaged.errorString());
        return false;
    }
    // Its log goes with it (SQLite finds it by name); the fresh store must not pick it up.
    for (const char *suffix : {"-wal", "-shm"})
        if (QFileInfo::exists(file + suffix) && !QFile::rename(file + suffix, target + suffix))
            QFile::remove(file + suffix);
    logLine(singleLine(QStringLiteral("pending store %1 cannot be used (%2): set aside as %3, a fresh "
                                      "store is used")
                           .arg(file, why, target)));
    return true;
}

// Creates what is missing and stamps the schema version, in one transaction, only when
// there is something to write.
bool PendingStore::writeLayout() {
    if (hasAnswers && hasOrders && version == schemaVersion)
        return true;
    QSqlDatabase db = QSqlDatabase::database(connectionName, false);
    if (!db.transaction()) {
        error = reasonOf(db.lastError());
        return false;
    }
    if (!exec(createAnswers) || !exec(createOrders) ||
        !exec(QStringLiteral("PRAGMA user_version = %1").arg(schemaVersion))) {
        db.rollback();
        return false;
    }
    if (!db.commit()) {
        error = reasonOf(db.lastError());
        db.rollback();
        return false;
    }
    hasAnswers = hasOrders = true;
    version = schemaVersion;
    return true;
}

// A store of the previous release can hold any number of answers.
void PendingStore::trimAnswers() {
    QSqlQuery query(QSqlDatabase::database(connectionName, false));
    if (!query.exec(QStringLiteral("SELECT count(*), min(stored_at) FROM answers")) || !query.next())
        return;
    const qint64 count = query.value(0).toLongLong();
    if (count <= heldAnswerLimit)
        return;
    const qint64 oldest = query.value(1).toLongLong();
    const QString over =
        QStringLiteral("FROM answers WHERE id NOT IN (SELECT id FROM answers ORDER BY id DESC "
                       "LIMIT %1)")
            .arg(heldAnswerLimit);
    if (!query.exec(QStringLiteral("SELECT sum(length(json)) ") + over) || !query.next())
        return;
    const qint64 bytes = query.value(0).toLongLong();
    if (!query.exec(QStringLiteral("DELETE ") + over))
        return;
    logLine(
        QStringLiteral("held terminal answers are kept %1 at most: the %2 oldest, waiting up to %3 (%4 bytes "
                       "in all), were dropped unread")
            .arg(heldAnswerLimit)
            .arg(count - heldAnswerLimit)
            .arg(describeAge(nowMs() - oldest))
            .arg(bytes));
}

QStringList PendingStore::setAsideFiles() const {
    const QFileInfo info(file);
    QStringList found;
    const QFileInfoList entries =
        info.dir().entryInfoList({info.fileName() + QStringLiteral(".corrupt-*")}, QDir::Files, QDir::Name);
    for (const QFileInfo &entry : entries)
        if (!entry.fileName().endsWith(QLatin1String("-wal")) &&
            !entry.fileName().endsWith(QLatin1String("-shm")))
            found << entry.filePath();
    return found;
}

bool PendingStore::exec(const QString &statement) {
    QSqlQuery query(QSqlDatabase::database(connectionName, false));
    if (!query.exec(statement)) {
        error = reasonOf(query.lastError());
        return false;
    }
    return true;
}

// " WHERE id NOT IN (...)" for rows delivered but still in the file; ids are numbers we made.
QString PendingStore::notIn(const QSet<qint64> &ids) const {
    if (ids.isEmpty())
        return {};
    QStringList list;
    for (const qint64 id : ids)
        list << QString::number(id);
    return QStringLiteral(" WHERE id NOT IN (%1)").arg(list.join(u','));
}

qint64 PendingStore::addAnswer(const QByteArray &json, qint64 storedAtMs) {
    if (!open)
        return 0;
    retryRemovals();
    QSqlDatabase db = QSqlDatabase::database(connectionName, false);
    QSqlQuery query(db);
    const auto fail = [&](const QSqlError &why) {
        logLine(QStringLiteral("pending store: an answer could not be kept: ") + reasonOf(why));
        db.rollback();
        return 0;
    };
    if (!db.transaction())
        return fail(db.lastError());
    query.prepare(QStringLiteral("INSERT INTO answers (stored_at, json) VALUES (?, ?)"));
    query.addBindValue(storedAtMs);
    query.addBindValue(json);
    if (!query.exec())
        return fail(query.lastError());
    const qint64 id = query.lastInsertId().toLongLong();
    // The newest are the ones a POS still waits for; those over the limit go oldest first.
    if (!query.exec(QStringLiteral("SELECT id, stored_at, length(json) FROM answers") +
                    notIn(answersDelivered) + QStringLiteral(" ORDER BY id")))
        return fail(query.lastError());
    QList<Answer> waiting;
    QList<qint64> sizes;
    while (query.next()) {
        waiting.append({query.value(0).toLongLong(), query.value(1).toLongLong(), {}});
        sizes.append(query.value(2).toLongLong());
    }
    QStringList lines;
    QSqlQuery drop(db);
    drop.prepare(QStringLiteral("DELETE FROM answers WHERE id = ?"));
    for (qsizetype i = 0; i < waiting.size() - heldAnswerLimit; ++i) {
        drop.bindValue(0, waiting[i].id);
        if (!drop.exec())
            return fail(drop.lastError());
        lines << QStringLiteral(
                     "held terminal answers are kept %1 at most: the oldest, waiting %2 (%3 bytes), "
                     "was dropped unread")
                     .arg(heldAnswerLimit)
                     .arg(describeAge(nowMs() - waiting[i].storedAtMs))
                     .arg(sizes[i]);
    }
    if (!db.commit())
        return fail(db.lastError());
    for (const QString &line : std::as_const(lines))
        logLine(line);
    return id;
}

QList<PendingStore::Answer> PendingStore::answers(int limit) const {
    QList<Answer> all;
    if (!open || !hasAnswers)
        return all;
    QSqlQuery query(QSqlDatabase::database(connectionName, false));
    if (!query.exec(QStringLiteral("SELECT id, stored_at, json FROM answers") + notIn(answersDelivered) +
                    QStringLiteral(" ORDER BY id LIMIT %1").arg(limit))) {
        error = reasonOf(query.lastError());
        return all;
    }
    while (query.next())
        all.append({query.value(0).toLongLong(), query.value(1).toLongLong(), query.value(2).toByteArray()});
    return all;
}

bool PendingStore::removeAnswer(qint64 id) {
    return remove(answersTable, answersDelivered, id, QStringLiteral("a delivered terminal answer"));
}

qint64 PendingStore::addOrder(const QString &address, quint16 port, const QByteArray &payload,
                              qint64 arrivedAtMs) {
    if (!open)
        return 0;
    retryRemovals();
    QSqlQuery query(QSqlDatabase::database(connectionName, false));
    query.prepare(
        QStringLiteral("INSERT INTO orders (arrived_at, address, port, payload) VALUES (?, ?, ?, ?)"));
    query.addBindValue(arrivedAtMs);
    query.addBindValue(address);
    query.addBindValue(port);
    query.addBindValue(payload);
    if (!query.exec()) {
        error = reasonOf(query.lastError());
        return 0;
    }
    return query.lastInsertId().toLongLong();
}

QList<PendingStore::Order> PendingStore::orders() const {
    QList<Order> all;
    if (!open || !hasOrders)
        return all;
    QSqlQuery query(QSqlDatabase::database(connectionName, false));
    if (!query.exec(QStringLiteral("SELECT id, arrived_at, address, port, payload FROM orders") +
                    notIn(ordersDelivered) + QStringLiteral(" ORDER BY id"))) {
        error = reasonOf(query.lastError());
        return all;
    }
    while (query.next())
        all.append({query.value(0).toLongLong(), query.value(1).toLongLong(), query.value(2).toString(),
                    static_cast<quint16>(query.value(3).toUInt()), query.value(4).toByteArray()});
    return all;
}

bool PendingStore::removeOrder(qint64 id) {
    return remove(ordersTable, ordersDelivered, id, QStringLiteral("a printed kitchen order"));
}

bool PendingStore::deleteRow(const QString &table, qint64 id) {
    QSqlQuery query(QSqlDatabase::database(connectionName, false));
    query.prepare(QStringLiteral("DELETE FROM %1 WHERE id = ?").arg(table));
    query.addBindValue(id);
    if (!query.exec()) {
        error = reasonOf(query.lastError());
        return false;
    }
    return true;
}

bool PendingStore::remove(const QString &table, QSet<qint64> &delivered, qint64 id, const QString &what) {
    if (!open)
        return false;
    retryRemovals();
    if (deleteRow(table, id)) {
        delivered.remove(id);
        return true;
    }
    if (use == Use::Inspect)
        return false;
    // Delivering it again would be worse than a row left behind: a second approval at the
    // POS, a second ticket in the kitchen.
    if (!delivered.contains(id)) {
        delivered.insert(id);
        logLine(QStringLiteral("pending store: %1 could not be removed (%2): it is not delivered again, and "
                               "its removal is retried")
                    .arg(what, error));
    }
    if (!retryTimer && QCoreApplication::instance()) {
        retryTimer = std::make_unique<QTimer>();
        retryTimer->setSingleShot(true);
        retryTimer->setInterval(removalRetryMs);
        QObject::connect(retryTimer.get(), &QTimer::timeout, retryTimer.get(), [this] { retryRemovals(); });
    }
    if (retryTimer && !retryTimer->isActive())
        retryTimer->start();
    return false;
}

void PendingStore::retryRemovals() {
    for (auto [table, delivered] :
         {std::pair{answersTable, &answersDelivered}, std::pair{ordersTable, &ordersDelivered}}) {
        for (auto it = delivered->begin(); it != delivered->end();) {
            if (deleteRow(table, *it))
                it = delivered->erase(it);
            else
                ++it;
        }
    }
    const bool left = !answersDelivered.isEmpty() || !ordersDelivered.isEmpty();
    if (retryTimer && left && !retryTimer->isActive())
        retryTimer->start();
}

QString describeAge(qint64 ms) {
    const qint64 seconds = std::max<qint64>(0, ms / 1000);
    const qint64 hours = seconds / 3600;
    const qint64 minutes = (seconds % 3600) / 60;
    const qint64 rest = seconds % 60;
    if (hours > 0)
        return QStringLiteral("%1 h %2 min").arg(hours).arg(minutes);
    if (minutes > 0)
        return QStringLiteral("%1 min %2 s").arg(minutes).arg(rest);
    return QStringLiteral("%1 s").arg(rest);
}
