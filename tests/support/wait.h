#pragma once

#include "devsim/eventwait.h"

#include <functional>

// Runs the event loop until `done` holds or the deadline passes; returns whether it held.
inline bool waitUntil(const std::function<bool()> &done, int timeoutMs) {
    return devsim::runEventsUntil(done, timeoutMs);
}

// Runs the event loop for a while, for checks that something does NOT happen.
inline void keepRunningFor(int ms) {
    waitUntil([] { return false; }, ms);
}
