#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <memory>

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
        qint64 id = 0;
        qint64 arrivedAtMs = 0;
        QString address;
        quint16 port = 0;
        QByteArray payload; // already in code page 949: exactly the printer's bytes
    };

    // $XDG_STATE_HOME/teranocounter/pending.sqlite (by default ~/.local/state/...).
    static QString defaultPath();
    // The service's store, opened on first use. Null, after one line saying why, when it
    // cannot be opened; the service then goes on without keeping anything.
    static PendingStore *shared();

    explicit PendingStore(const QString &path);
    ~PendingStore();
    PendingStore(const PendingStore &) = delete;
    PendingStore &operator=(const PendingStore &) = delete;

    bool isOpen() const { return open; }
    QString errorString() const { return error; }
    QString path() const { return file; }

    qint64 addAnswer(const QByteArray &json, qint64 storedAtMs);
    QList<Answer> answers() const; // oldest first
    bool removeAnswer(qint64 id);

    qint64 addOrder(const QString &address, quint16 port, const QByteArray &payload, qint64 arrivedAtMs);
    QList<Order> orders() const; // in the order they arrived
    bool removeOrder(qint64 id);

    static qint64 nowMs();

private:
    bool openDatabase();
    bool exec(const QString &statement);

    QString file;
    QString connectionName;
    bool open = false;
    QString error;
};

// "3 min 12 s", "25 h 3 min": how long something has been waiting.
QString describeAge(qint64 ms);
