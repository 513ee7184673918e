#pragma once

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QTimer>
#include <functional>

namespace devsim {

// Runs the event loop until `done` holds or `timeoutMs` has passed; returns whether it held.
//
// The thread sleeps in the event dispatcher between events. Qt's processEvents() with a time
// limit never sleeps (it drops WaitForMoreEvents), so a wait built on it keeps a processor busy
// for as long as it waits, and beside a sanitized build or other tests that starves the very
// processes being waited for. A short tick wakes the loop when no event comes, so that the
// condition and the deadline are looked at even then.
inline bool runEventsUntil(const std::function<bool()> &done, int timeoutMs) {
    const QDeadlineTimer deadline(timeoutMs);
    QTimer tick;
    tick.start(10);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    }
    return true;
}

} // namespace devsim
