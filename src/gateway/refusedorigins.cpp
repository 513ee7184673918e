#include "refusedorigins.h"

#include "common/log.h"

QString RefusedOrigins::shown(const QString &origin) {
    if (origin.isEmpty())
        return QStringLiteral("\"\""); // an Origin header with nothing in it
    QString text = singleLine(origin);
    if (text.size() > longestShown)
        text = text.left(longestShown) + QStringLiteral("...");
    return text;
}

bool RefusedOrigins::note(const QString &origin, qint64 nowMs, const QDateTime &at) {
    const QString key = shown(origin);
    recent.erase(
        std::remove_if(recent.begin(), recent.end(), [&](const Entry &e) { return e.origin == key; }),
        recent.end());
    recent.prepend({key, at});
    while (recent.size() > shownCount)
        recent.removeLast();

    while (!printedMs.empty() && nowMs - printedMs.front() >= quietMs)
        printedMs.pop_front();
    // Forget origins whose minute is over; what is left is bounded by the lines of a minute.
    for (auto it = lastPrintedMs.begin(); it != lastPrintedMs.end();)
        it = nowMs - it.value() >= quietMs ? lastPrintedMs.erase(it) : std::next(it);

    if (lastPrintedMs.contains(key) || printedMs.size() >= static_cast<size_t>(maxLinesPerMinute))
        return false;
    lastPrintedMs.insert(key, nowMs);
    printedMs.push_back(nowMs);
    return true;
}
