#pragma once

#include <QByteArray>
#include <QFile>
#include <QList>
#include <QString>

// What the kernel says about a running process, read from /proc: resident memory and the
// bytes it has read. Fault and soak tests watch the service's cost from outside with these.
namespace ProcessUsage {

// A "Name:   value kB" field of /proc/<pid>/status, in KiB; -1 when it cannot be read.
inline qint64 statusKiB(qint64 pid, const QByteArray &field) {
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).trimmed().split(' ').value(0).toLongLong();
    return -1;
}

// Resident memory now, and the most it has been since the process started.
inline qint64 residentKiB(qint64 pid) {
    return statusKiB(pid, "VmRSS");
}
inline qint64 peakResidentKiB(qint64 pid) {
    return statusKiB(pid, "VmHWM");
}

// Every byte the process has taken in through read() and its kin, from any descriptor.
inline qint64 bytesRead(qint64 pid) {
    QFile io(QStringLiteral("/proc/%1/io").arg(pid));
    if (!io.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : io.readAll().split('\n'))
        if (line.startsWith("rchar:"))
            return line.mid(6).trimmed().toLongLong();
    return -1;
}

} // namespace ProcessUsage
