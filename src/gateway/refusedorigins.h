#pragma once

#include <QDateTime>
#include <QHash>
#include <QList>
#include <QString>
#include <deque>

// The handshakes refused for their Origin: the few latest, for the popover, and which of
// them get a line on standard output. A page that retries in a loop must not flood the
// journal, so an origin is printed at most once a minute, and all of them together at most
// maxLinesPerMinute times a minute (a page can make up new origins, as sandboxed frames or
// subdomains, faster than anyone reads them).
class RefusedOrigins {
public:
    static constexpr qint64 quietMs = 60'000;
    static constexpr int maxLinesPerMinute = 30;
    static constexpr int shownCount = 5;
    // Origins are what the client sent; a longer one is cut for the line and the popover.
    static constexpr int longestShown = 200;

    struct Entry {
        QString origin;
        QDateTime at;
    };

    // Notes one refusal at `nowMs` on a monotonic clock, at wall time `at`; true when it is
    // to be printed.
    bool note(const QString &origin, qint64 nowMs, const QDateTime &at);
    // The latest refused origins, each once, the most recent first.
    const QList<Entry> &latest() const { return recent; }

    static QString shown(const QString &origin);

private:
    QHash<QString, qint64> lastPrintedMs;
    std::deque<qint64> printedMs; // within the last minute
    QList<Entry> recent;
};
