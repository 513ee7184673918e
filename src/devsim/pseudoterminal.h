#pragma once

#include "eventwait.h"

#include <QByteArray>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QString>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace devsim {

// A card terminal's end of a serial line, made of a pseudo-terminal pair: the terminal
// holds the master side, the service opens the slave. Closing the master makes the slave
// vanish, as a pulled USB adapter does; a symlink to the slave stands for the adapter's name.
class PseudoTerminal {
public:
    PseudoTerminal() {
        int slave = -1;
        char name[256] = {};
        if (::openpty(&master, &slave, name, nullptr, nullptr) != 0) {
            master = -1;
            return;
        }
        slaveName = QString::fromLocal8Bit(name);
        // Raw both ways until the service sets the line up itself: no echo, no CR/LF games.
        termios tio{};
        ::tcgetattr(slave, &tio);
        ::cfmakeraw(&tio);
        ::tcsetattr(slave, TCSANOW, &tio);
        ::close(slave);
        ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
        // A service started later must not inherit the master: the terminal would stay
        // plugged in for as long as the service runs.
        ::fcntl(master, F_SETFD, FD_CLOEXEC);
    }
    ~PseudoTerminal() { unplug(); }
    PseudoTerminal(const PseudoTerminal &) = delete;
    PseudoTerminal &operator=(const PseudoTerminal &) = delete;

    bool isValid() const { return master >= 0; }
    int masterDescriptor() const { return master; }
    QString slavePath() const { return slaveName; }

    // The terminal goes away: the slave device disappears and a reader of it gets errors.
    void unplug() {
        if (master >= 0)
            ::close(master);
        master = -1;
    }

    // The line hangs up under whoever has it open, as when an adapter glitches: their
    // descriptors fail from now on, while the device itself stays. Needs CAP_SYS_ADMIN.
    bool hangUpLine() {
        const int fd = ::open(QFile::encodeName(slaveName).constData(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (fd < 0)
            return false;
        const bool done = ::ioctl(fd, TIOCVHANGUP) == 0;
        ::close(fd);
        return done;
    }

    bool write(const QByteArray &bytes) {
        qsizetype done = 0;
        while (done < bytes.size()) {
            const ssize_t n =
                ::write(master, bytes.constData() + done, static_cast<size_t>(bytes.size() - done));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return false;
            done += n;
        }
        return true;
    }

    // Like write(), for more than the pseudo-terminal holds at once: when it is full, waits
    // for the service to read (for `timeoutMs` in all) instead of giving up.
    bool writeAll(const QByteArray &bytes, int timeoutMs) {
        QElapsedTimer clock;
        clock.start();
        qsizetype done = 0;
        while (done < bytes.size()) {
            const ssize_t n =
                ::write(master, bytes.constData() + done, static_cast<size_t>(bytes.size() - done));
            if (n > 0) {
                done += n;
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && errno != EAGAIN)
                return false;
            const qint64 left = timeoutMs - clock.elapsed();
            if (left <= 0)
                return false;
            pollfd room{master, POLLOUT, 0};
            if (::poll(&room, 1, static_cast<int>(left)) < 0 && errno != EINTR)
                return false;
        }
        return true;
    }

    // Everything the service has written so far.
    const QByteArray &received() {
        readAvailable();
        return bytes;
    }
    void clearReceived() {
        readAvailable();
        bytes.clear();
    }
    // Runs the event loop until `count` bytes have come (or the time is up).
    bool waitForReceived(qsizetype count, int timeoutMs) {
        return runEventsUntil([&] { return received().size() >= count; }, timeoutMs);
    }

    // The line speed the service has set, as a termios speed constant (B9600...).
    speed_t outputSpeed() const {
        termios tio{};
        if (::tcgetattr(master, &tio) != 0)
            return 0;
        return ::cfgetospeed(&tio);
    }

private:
    void readAvailable() {
        if (master < 0)
            return;
        char buffer[4096];
        for (;;) {
            const ssize_t n = ::read(master, buffer, sizeof buffer);
            if (n > 0) {
                bytes.append(buffer, n);
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            return; // EAGAIN: nothing more now; EIO: the slave is not open
        }
    }

    int master = -1;
    QString slaveName;
    QByteArray bytes;
};

// A name for a terminal that can be plugged (the link exists) and unplugged (it does not).
class PortLink {
public:
    explicit PortLink(const QString &path) : linkPath(path) {}
    ~PortLink() { unplug(); }
    const QString &path() const { return linkPath; }
    bool plug(const PseudoTerminal &terminal) {
        QFile::remove(linkPath);
        return QFile::link(terminal.slavePath(), linkPath);
    }
    void unplug() { QFile::remove(linkPath); }

private:
    QString linkPath;
};

} // namespace devsim
