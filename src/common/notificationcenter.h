#pragma once

#include <QMutex>
#include <QObject>
#include <QString>
#include <QVariant>
#include <functional>
#include <vector>

// The service's in-process bus. Observers register for a name; post() calls every
// observer of that name, in registration order, on the posting thread, before it returns.
// The payload is the notification's object: usually a QVariantMap with text keys, but an
// observer must be ready for anything, including an invalid QVariant (no object).
class NotificationCenter {
public:
    using Observer = std::function<void(const QVariant &object)>;
    using Token = quint64;

    static NotificationCenter &defaultCenter();

    // When `owner` is given, the observer is removed automatically when the owner is
    // destroyed, so a page that goes away cannot be called afterwards.
    Token addObserver(const QString &name, QObject *owner, Observer observer);
    void removeObserver(Token token);
    void post(const QString &name, const QVariant &object = QVariant());

    int observerCount(const QString &name) const;

private:
    struct Entry {
        Token token;
        QString name;
        std::shared_ptr<Observer> observer;
    };
    mutable QMutex mutex;
    std::vector<Entry> entries;
    Token nextToken = 1;
};
