#include "common/notificationcenter.h"
#include "common/notificationnames.h"

#include <QThread>
#include <QtTest>

class NotificationCenterTest : public QObject {
    Q_OBJECT
private slots:
    void namesAreTheFourBusNames() {
        QCOMPARE(NotificationName::TCPcontrol, QStringLiteral("TCPcontrol"));
        QCOMPARE(NotificationName::USBcontrol, QStringLiteral("USBcontrol"));
        QCOMPARE(NotificationName::WEBSOCKET, QStringLiteral("WEBSOCKET"));
        QCOMPARE(NotificationName::appDelegateNoti, QStringLiteral("appDelegateNoti"));
    }

    void deliveryIsSynchronousOnThePostingThread() {
        NotificationCenter center;
        QStringList seen;
        QThread *observerThread = nullptr;
        center.addObserver(QStringLiteral("X"), nullptr, [&](const QVariant &object) {
            seen << object.toMap().value(QStringLiteral("msg")).toString();
            observerThread = QThread::currentThread();
        });

        QStringList seenWhenPostReturned;
        QThread *postingThread = nullptr;
        std::unique_ptr<QThread> poster(QThread::create([&] {
            postingThread = QThread::currentThread();
            center.post(QStringLiteral("X"),
                        QVariantMap{{QStringLiteral("msg"), QStringLiteral("from worker")}});
            seenWhenPostReturned = seen;
        }));
        poster->start();
        QVERIFY(poster->wait(5000));
        // Delivered before post() returned, on the posting thread itself.
        QCOMPARE(seenWhenPostReturned, QStringList{QStringLiteral("from worker")});
        QCOMPARE(observerThread, postingThread);
        QVERIFY(observerThread != QThread::currentThread());

        center.post(QStringLiteral("X"), QVariantMap{{QStringLiteral("msg"), QStringLiteral("from main")}});
        QCOMPARE(seen.last(), QStringLiteral("from main"));
        QCOMPARE(observerThread, QThread::currentThread());
    }

    void onlyObserversOfTheNameAreCalledInRegistrationOrder() {
        NotificationCenter center;
        QStringList calls;
        center.addObserver(QStringLiteral("A"), nullptr, [&](const QVariant &) { calls << "a1"; });
        center.addObserver(QStringLiteral("B"), nullptr, [&](const QVariant &) { calls << "b"; });
        center.addObserver(QStringLiteral("A"), nullptr, [&](const QVariant &) { calls << "a2"; });
        center.post(QStringLiteral("A"));
        QCOMPARE(calls, (QStringList{"a1", "a2"}));
        center.post(QStringLiteral("nobody listens"));
        QCOMPARE(calls.size(), 2);
    }

    void absentObjectReachesObserverAsInvalid() {
        NotificationCenter center;
        bool valid = true;
        center.addObserver(QStringLiteral("A"), nullptr,
                           [&](const QVariant &object) { valid = object.isValid(); });
        center.post(QStringLiteral("A"));
        QVERIFY(!valid);
    }

    void observerGoesAwayWithItsOwner() {
        NotificationCenter center;
        int calls = 0;
        auto owner = std::make_unique<QObject>();
        center.addObserver(QStringLiteral("A"), owner.get(), [&](const QVariant &) { ++calls; });
        center.post(QStringLiteral("A"));
        owner.reset();
        center.post(QStringLiteral("A"));
        QCOMPARE(calls, 1);
        QCOMPARE(center.observerCount(QStringLiteral("A")), 0);
    }

    void observerMayPostFromInsideAnObserver() {
        NotificationCenter center;
        QStringList calls;
        center.addObserver(QStringLiteral("A"), nullptr, [&](const QVariant &) {
            calls << "a";
            center.post(QStringLiteral("B"));
        });
        center.addObserver(QStringLiteral("B"), nullptr, [&](const QVariant &) { calls << "b"; });
        center.post(QStringLiteral("A"));
        QCOMPARE(calls, (QStringList{"a", "b"}));
    }

    void defaultCenterIsOneObject() {
        QCOMPARE(&NotificationCenter::defaultCenter(), &NotificationCenter::defaultCenter());
    }
};

QTEST_GUILESS_MAIN(NotificationCenterTest)
#include "tst_notificationcenter.moc"
