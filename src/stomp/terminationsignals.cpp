#include "terminationsignals.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

int wakeFds[2] = {-1, -1};

// Only async-signal-safe work here: one byte into the pipe, the event loop does the rest.
void onTerminationSignal(int) {
    const int savedErrno = errno;
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(wakeFds[1], &byte, 1);
    errno = savedErrno;
}

} // namespace

void quitOnTerminationSignals() {
    if (wakeFds[0] >= 0)
        return;
    if (::pipe2(wakeFds, O_CLOEXEC | O_NONBLOCK) != 0)
        return; // no clean shutdown then; the default action still ends the process

    auto *notifier = new QSocketNotifier(wakeFds[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, [notifier] {
        char buffer[16];
        while (::read(wakeFds[0], buffer, sizeof buffer) > 0) {
        }
        notifier->setEnabled(false);
        QCoreApplication::quit();
    });

    struct sigaction action = {};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}
