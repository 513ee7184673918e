#include "notificationcenter.h"

#include <QMutexLocker>
#include <algorithm>

NotificationCenter &NotificationCenter::defaultCenter() {
    static NotificationCenter center;
    return center;
}

NotificationCenter::Token NotificationCenter::addObserver(const QString &name, QObject *owner,
                                                          Observer observer) {
    Token token;
    {
        QMutexLocker lock(&mutex);
        token = nextToken++;
        entries.push_back({token, name, std::make_shared<Observer>(std::move(observer))});
    }
    if (owner)
        QObject::connect(owner, &QObject::destroyed, [this, token] { removeObserver(token); });
    return token;
}

void NotificationCenter::removeObserver(Token token) {
    QMutexLocker lock(&mutex);
    std::erase_if(entries, [token](const Entry &e) { return e.token == token; });
}

void NotificationCenter::post(const QString &name, const QVariant &object) {
    // Observers run outside the lock: one may post again or register another observer.
    std::vector<std::shared_ptr<Observer>> targets;
    {
        QMutexLocker lock(&mutex);
        for (const Entry &e : entries)
            if (e.name == name)
                targets.push_back(e.observer);
    }
    for (const auto &observer : targets)
        (*observer)(object);
}

int NotificationCenter::observerCount(const QString &name) const {
    QMutexLocker lock(&mutex);
    return static_cast<int>(
        std::count_if(entries.begin(), entries.end(), [&name](const Entry &e) { return e.name == name; }));
}
