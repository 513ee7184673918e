#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <functional>

// Runs the event loop until `done` holds or the deadline passes; returns whether it held.
inline bool waitUntil(const std::function<bool()> &done, int timeoutMs) {
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() >= timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 20);
    }
    return true;
}

// Runs the event loop for a while, for checks that something does NOT happen.
inline void keepRunningFor(int ms) {
    waitUntil([] { return false; }, ms);
}
