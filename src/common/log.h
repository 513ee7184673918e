#pragma once

#include <QString>

// Diagnostics go to standard output as whole lines, flushed at once, so that a
// supervisor's journal or a pipe sees each line as soon as it is printed.
void logLine(const QString &line);
