#pragma once

#include <QDir>
#include <QFile>
#include <QString>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

// A disk that fills up: a small tmpfs mounted over a folder for one test, and a file that
// takes every byte left on it. Mounting needs root (CI runs as root); the tmpfs goes with
// this object, so nothing stays mounted after a failed check.
class SmallDisk {
public:
    SmallDisk(const QString &folder, qint64 bytes) : at(folder) {
        if (!QDir().mkpath(folder)) {
            why = QStringLiteral("cannot create ") + folder;
            return;
        }
        const QByteArray options = "size=" + QByteArray::number(bytes) + ",mode=0700";
        if (::mount("tmpfs", QFile::encodeName(folder).constData(), "tmpfs", 0, options.constData()) != 0) {
            why = QStringLiteral("mount -t tmpfs on %1: %2 (this needs root)")
                      .arg(folder, QString::fromLocal8Bit(strerror(errno)));
            return;
        }
        mounted = true;
    }
    ~SmallDisk() {
        if (mounted) // lazily: a process that still has a file open there lets go of it later
            ::umount2(QFile::encodeName(at).constData(), MNT_DETACH);
    }
    SmallDisk(const SmallDisk &) = delete;
    SmallDisk &operator=(const SmallDisk &) = delete;

    bool isMounted() const { return mounted; }
    QString error() const { return why; }

    // Writes until the disk refuses a single byte more.
    bool fill() {
        const int fd =
            ::open(QFile::encodeName(fillerPath()).constData(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        if (fd < 0) {
            why = QStringLiteral("filler: ") + QString::fromLocal8Bit(strerror(errno));
            return false;
        }
        static const char zeros[65536] = {};
        for (const size_t chunk : {sizeof zeros, size_t(4096), size_t(1)}) {
            while (::write(fd, zeros, chunk) == static_cast<ssize_t>(chunk)) {
            }
        }
        const bool full = errno == ENOSPC;
        ::close(fd);
        if (!full)
            why = QStringLiteral("filler: ") + QString::fromLocal8Bit(strerror(errno));
        return full;
    }
    // Gives the room back.
    bool makeRoom() { return QFile::remove(fillerPath()); }

private:
    QString fillerPath() const { return at + QStringLiteral("/filler"); }

    QString at;
    QString why;
    bool mounted = false;
};
