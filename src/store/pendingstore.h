#pragma once

#include <QByteArray>
#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>
#include <memory>

class QTimer;

// What is waiting to be delivered: terminal answers that found no POS, and kitchen orders
// whose printer could not be reached. One SQLite file, written through a write-ahead log
// with full synchronous commits, so that what was stored survives a crash or a SIGKILL.
// The file is private to the user (mode 0600): it holds payment answers.
class PendingStore {
public:
    struct Answer {
        qint64 id = 0;
        qint64 storedAtMs = 0; // wall clock, milliseconds since the epoch
        QByteArray json;
    };
    struct Order {
        qint64 id = 0; // 0: not in the file (it could not be kept)
        qint64 arrivedAtMs = 0;
        QString address;
        quint16 port = 0;
        QByteArray payload; // already in code page 949: exactly the printer's bytes
    };

    // The service mends what it finds: a file it cannot use is set aside and a fresh one
    // made, and a store of the previous release is stamped with the schema version. Looking
    // (`--pending`) changes nothing but the rows it is told to remove.
    enum class Use { Service, Inspect };

    // Written into the file (PRAGMA user_version). The release before it wrote 0 and the
    // same two tables.
    static constexpr int schemaVersion = 1;
    // A terminal can be made to answer without end; the POS gets the newest this many.
    static constexpr int heldAnswerLimit = 100;
    // How often a removal that the file refused (a full disk) is tried again.
    static constexpr int removalRetryMs = 1000;

    // $XDG_STATE_HOME/teranocounter/pending.sqlite (by default ~/.local/state/...).
    static QString defaultPath();
    // The service's store, opened on first use. Null, after one line saying why, when it
    // cannot be opened; the service then goes on without keeping anything.
    static PendingStore *shared();

    explicit PendingStore(const QString &path, Use use = Use::Service);
    ~PendingStore();
    PendingStore(const PendingStore &) = delete;
    PendingStore &operator=(const PendingStore &) = delete;

    bool isOpen() const { return open; }
    // Why it cannot be opened, or why the latest read or write failed.
    QString errorString() const { return error; }
    // Looking only: the file is damaged or laid out by something else, and the service
    // would set it aside.
    bool isUnusable() const { return unusable; }
    QString path() const { return file; }
    // What the service set aside next to the store, oldest first.
    QStringList setAsideFiles() const;

    // Beyond heldAnswerLimit the oldest answer goes, with one line. 0: not kept.
    qint64 addAnswer(const QByteArray &json, qint64 storedAtMs);
    // Oldest first; at most `limit` of them when it is not negative.
    QList<Answer> answers(int limit = -1) const;
    // An answer or order that was delivered goes from the file. When the file will not take
    // the change (a full disk), it is remembered as delivered: answers() and orders() leave it
    // out for the life of the process, and its removal is tried again with the next write
    // and every removalRetryMs while any is left. False: the row is still in the file.
    bool removeAnswer(qint64 id);

    // 0: not kept (errorString() says why).
    qint64 addOrder(const QString &address, quint16 port, const QByteArray &payload, qint64 arrivedAtMs);
    QList<Order> orders() const; // in the order they arrived
    bool removeOrder(qint64 id);

    static qint64 nowMs();

private:
    enum class Fit { Usable, Unusable, Failed };

    bool openDatabase();
    bool prepareFile();
    Fit connectAndCheck();
    Fit checkLayout();
    bool setAside();
    bool writeLayout();
    void trimAnswers();
    bool exec(const QString &statement);
    bool deleteRow(const QString &table, qint64 id);
    bool remove(const QString &table, QSet<qint64> &delivered, qint64 id, const QString &what);
    void retryRemovals();
    QString notIn(const QSet<qint64> &ids) const;

    QString file;
    QString connectionName;
    Use use;
    bool open = false;
    bool unusable = false;
    mutable QString error;
    bool hasAnswers = false;
    bool hasOrders = false;
    int version = 0;
    QSet<qint64> answersDelivered; // delivered, and still in the file
    QSet<qint64> ordersDelivered;
    std::unique_ptr<QTimer> retryTimer;
};

// "3 min 12 s", "25 h 3 min": how long something has been waiting.
QString describeAge(qint64 ms);
