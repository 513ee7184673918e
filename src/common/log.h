#pragma once

#include <QString>

// Diagnostics go to standard output as whole lines, flushed at once, so that a
// supervisor's journal or a pipe sees each line as soon as it is printed.
void logLine(const QString &line);

// Text from outside (an address or a port the POS sent) can carry line breaks; a
// diagnostic built from it must still be one line.
QString singleLine(QString text);
