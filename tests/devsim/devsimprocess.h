#pragma once

#include "wait.h"

#include <QProcess>
#include <QStringList>

// The real `teranocounter-devsim` executable, its standard output kept line by line.
class DevsimProcess {
public:
    ~DevsimProcess() {
        if (process.state() != QProcess::NotRunning) {
            process.terminate();
            process.waitForFinished(3000);
        }
    }

    // Starts the device and waits for its first line, which says where it is.
    bool start(const QStringList &arguments) {
        process.start(QStringLiteral(DEVSIM_BIN), arguments);
        return process.waitForStarted(5000) && waitForLineCount(1, 5000);
    }

    QStringList lines() {
        buffer += process.readAllStandardOutput();
        qsizetype end;
        while ((end = buffer.indexOf('\n')) >= 0) {
            all << QString::fromUtf8(buffer.left(end));
            buffer.remove(0, end + 1);
        }
        return all;
    }
    bool waitForLineCount(qsizetype count, int timeoutMs) {
        return waitUntil([&] { return lines().size() >= count; }, timeoutMs);
    }
    // The first line that holds every one of `parts`, or an empty one after the time-out.
    QString waitForLineWith(const QStringList &parts, int timeoutMs) {
        QString found;
        waitUntil(
            [&] {
                for (const QString &line : lines()) {
                    bool all = true;
                    for (const QString &part : parts)
                        all = all && line.contains(part);
                    if (all) {
                        found = line;
                        return true;
                    }
                }
                return false;
            },
            timeoutMs);
        return found;
    }
    QString standardError() { return QString::fromUtf8(process.readAllStandardError()); }
    bool isRunning() const { return process.state() == QProcess::Running; }

private:
    QProcess process;
    QByteArray buffer;
    QStringList all;
};
