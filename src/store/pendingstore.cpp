#include "pendingstore.h"

#include "log.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QVariant>
#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::atomic<int> connectionCounter{0};

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
    static std::unique_ptr<PendingStore> store;
    static bool tried = false;
    if (!tried) {
        tried = true;
        auto candidate = std::make_unique<PendingStore>(defaultPath());
        if (candidate->isOpen())
            store = std::move(candidate);
        else
            logLine(
                singleLine(QStringLiteral("pending store %1 cannot be opened: %2; undelivered answers and "
                                          "kitchen orders are not kept")
                               .arg(candidate->path(), candidate->errorString())));
    }
    return store.get();
}

qint64 PendingStore::nowMs() {
    return QDateTime::currentMSecsSinceEpoch();
}

PendingStore::PendingStore(const QString &path)
    : file(path), connectionName(QStringLiteral("pending-%1").arg(connectionCounter++)) {
    open = openDatabase();
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
    if (!QDir().mkpath(QFileInfo(file).absolutePath())) {
        error = QStringLiteral("cannot create its folder");
        return false;
    }
    if (QFileInfo(file).isDir()) {
        error = QStringLiteral("a folder is in its place");
        return false;
    }
    if (!createPrivateFile(file, &error))
        return false;
    if (!QSqlDatabase::isDriverAvailable(QStringLiteral("QSQLITE"))) {
        error = QStringLiteral("Qt's SQLite driver is not installed (Debian package libqt6sql6-sqlite)");
        return false;
    }
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), connectionName);
    db.setDatabaseName(file);
    if (!db.open()) {
        error = db.lastError().text();
        return false;
    }
    QSqlQuery journal(db);
    if (!journal.exec(QStringLiteral("PRAGMA journal_mode=WAL")) || !journal.next() ||
        journal.value(0).toString().compare(QLatin1String("wal"), Qt::CaseInsensitive) != 0) {
        error = QStringLiteral("it cannot keep a write-ahead log: ") + journal.lastError().text();
        return false;
    }
    return exec(QStringLiteral("PRAGMA synchronous=FULL")) &&
           exec(QStringLiteral("CREATE TABLE IF NOT EXISTS answers ("
                               "id INTEGER PRIMARY KEY AUTOINCREMENT, stored_at INTEGER NOT NULL, "
                               "json BLOB NOT NULL)")) &&
           exec(QStringLiteral("CREATE TABLE IF NOT EXISTS orders ("
                               "id INTEGER PRIMARY KEY AUTOINCREMENT, arrived_at INTEGER NOT NULL, "
                               "address TEXT NOT NULL, port INTEGER NOT NULL, payload BLOB NOT NULL)"));
}

bool PendingStore::exec(const QString &statement) {
    QSqlQuery query(QSqlDatabase::database(connectionName, false));
    if (!query.exec(statement)) {
        error = query.lastError().text();
        return false;
    }
    return true;
}

qint64 PendingStore::addAnswer(const QByteArray &json, qint64 storedAtMs) {
    if (!open)
        return 0;
    QSqlQuery query(QSqlDatabase::database(connectionName, false));
    query.prepare(QStringLiteral("INSERT INTO answers (stored_at, json) VALUES (?, ?)"));
    query.addBindValue(storedAtMs);
    query.addBindValue(json);
    if (!query.exec()) {
        logLine(singleLine(QStringLiteral("pending store: an answer could not be kept: ") +
                           query.lastError().text()));
        return 0;
    }
    return query.lastInsertId().toLongLong();
}

QList<PendingStore::Answer> PendingStore::answers() const {
    QList<Answer> all;
    if (!open)
        return all;
    QSqlQuery query(QSqlDatabase::database(connectionName, false));
    if (!query.exec(QStringLiteral("SELECT id, stored_at, json FROM answers ORDER BY id")))
        return all;
    while (query.next())
        all.append({query.value(0).toLongLong(), query.value(1).toLongLong(), query.value(2).toByteArray()});
    return all;
}

bool PendingStore::removeAnswer(qint64 id) {
    if (!open)
        return false;
    QSqlQuery query(QSqlDatabase::database(connectionName, false));
    query.prepare(QStringLiteral("DELETE FROM answers WHERE id = ?"));
    query.addBindValue(id);
    return query.exec();
}

qint64 PendingStore::addOrder(const QString &address, quint16 port, const QByteArray &payload,
                              qint64 arrivedAtMs) {
    if (!open)
        return 0;
    QSqlQuery query(QSqlDatabase::database(connectionName, false));
    query.prepare(
        QStringLiteral("INSERT INTO orders (arrived_at, address, port, payload) VALUES (?, ?, ?, ?)"));
    query.addBindValue(arrivedAtMs);
    query.addBindValue(address);
    query.addBindValue(port);
    query.addBindValue(payload);
    if (!query.exec()) {
        logLine(singleLine(QStringLiteral("pending store: a kitchen order could not be kept: ") +
                           query.lastError().text()));
        return 0;
    }
    return query.lastInsertId().toLongLong();
}

QList<PendingStore::Order> PendingStore::orders() const {
    QList<Order> all;
    if (!open)
        return all;
    QSqlQuery query(QSqlDatabase::database(connectionName, false));
    if (!query.exec(QStringLiteral("SELECT id, arrived_at, address, port, payload FROM orders ORDER BY id")))
        return all;
    while (query.next())
        all.append({query.value(0).toLongLong(), query.value(1).toLongLong(), query.value(2).toString(),
                    static_cast<quint16>(query.value(3).toUInt()), query.value(4).toByteArray()});
    return all;
}

bool PendingStore::removeOrder(qint64 id) {
    if (!open)
        return false;
    QSqlQuery query(QSqlDatabase::database(connectionName, false));
    query.prepare(QStringLiteral("DELETE FROM orders WHERE id = ?"));
    query.addBindValue(id);
    return query.exec();
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
