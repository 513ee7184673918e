#pragma once

// SIGINT and SIGTERM, taken on the event loop instead of wherever the process happens to be.
// Call once, after the application object exists.

// An ordinary return from QCoreApplication::exec(), so the program shuts down through its
// destructors (the STOMP test server: each live session prints that it closed) and exits
// with status 0.
void quitOnTerminationSignals();

// The process still ends of the signal, with the same status and the kernel closing its
// sockets as it always did, but only between two events. A signal that lands inside a
// settings write (QSettings holds a lock file across it) would otherwise leave the lock
// behind, and the next start would wait in its own first write, with the POS port already
// listening and nobody answering, until Qt deemed the lock stale half a minute later.
void endOnTerminationSignalsBetweenEvents();
