#pragma once

// Turns SIGINT and SIGTERM into an ordinary return from QCoreApplication::exec(), so the
// server shuts down through its destructors (each live session prints that it closed)
// and exits with status 0. Call once, after the application object exists.
void quitOnTerminationSignals();
