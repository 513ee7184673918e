#include "terminationsignals.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <unistd.h>

namespace {

int wakeFds[2] = {-1, -1};

// Only async-signal-safe work here: the signal's number into the pipe, the event loop does
// the rest.
void onTerminationSignal(int signal) {
    const int savedErrno = errno;
    const char byte = static_cast<char>(signal);
    [[maybe_unused]] const ssize_t written = ::write(wakeFds[1], &byte, 1);
    errno = savedErrno;
}

void takeTerminationSignals(const std::function<void(int signal)> &then) {
    if (wakeFds[0] >= 0)
        return;
    if (::pipe2(wakeFds, O_CLOEXEC | O_NONBLOCK) != 0)
        return; // then the default action ends the process wherever it is, as before

    auto *notifier = new QSocketNotifier(wakeFds[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, [notifier, then] {
        char buffer[16];
        int signal = 0;
        for (ssize_t n; (n = ::read(wakeFds[0], buffer, sizeof buffer)) > 0;)
            signal = buffer[n - 1];
        notifier->setEnabled(false);
        then(signal);
    });

    struct sigaction action = {};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

} // namespace

void quitOnTerminationSignals() {
    takeTerminationSignals([](int) { QCoreApplication::quit(); });
}

void endOnTerminationSignalsBetweenEvents() {
    takeTerminationSignals([](int signal) {
        ::signal(signal, SIG_DFL);
        ::raise(signal);
    });
}
