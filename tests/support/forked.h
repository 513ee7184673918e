#pragma once

#include <QByteArray>
#include <functional>
#include <sys/wait.h>
#include <unistd.h>

// Runs `body` in a forked child and reports how the child ended and what it wrote on
// standard error. Used to watch a deliberate stop without stopping the test itself.
struct ChildOutcome {
    bool exitedNormally = false;
    int exitCode = -1;
    QByteArray standardError;
};

inline ChildOutcome runInChild(const std::function<void()> &body) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0)
        return {};
    const pid_t pid = fork();
    if (pid == 0) {
        close(pipeFds[0]);
        dup2(pipeFds[1], STDERR_FILENO);
        body();
        _exit(0); // the body returned: no stop happened
    }
    close(pipeFds[1]);
    ChildOutcome outcome;
    char buffer[4096];
    ssize_t n;
    while ((n = read(pipeFds[0], buffer, sizeof buffer)) > 0)
        outcome.standardError.append(buffer, n);
    close(pipeFds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    outcome.exitedNormally = WIFEXITED(status);
    outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}
