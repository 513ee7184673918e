#include "log.h"

#include <cstdio>
#include <mutex>

void logLine(const QString &line) {
    static std::mutex mutex;
    const QByteArray bytes = line.toUtf8() + '\n';
    std::lock_guard lock(mutex);
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

QString singleLine(QString text) {
    return text.replace(u'\r', QStringLiteral("\\r")).replace(u'\n', QStringLiteral("\\n"));
}
