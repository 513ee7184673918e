#include "fatal.h"

#include "log.h"

#include <cstdio>
#include <cstdlib>

void fatalStop(const QString &reason) {
    // Whatever was logged before the stop must survive it.
    std::fflush(stdout);
    const QByteArray line = "fatal: " + singleLine(reason).toUtf8() + '\n';
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stderr);
    std::fflush(stderr);
    // No destructors, no atexit handlers: other threads may be in the middle of anything.
    std::_Exit(EXIT_FAILURE);
}
