#pragma once

#include <QByteArray>
#include <QList>
#include <functional>

class QTcpSocket;

namespace devsim {

// How a device's answer crosses a network that cuts it up, as Wi-Fi and small switches do:
// in pieces, some milliseconds apart. Cut either at given byte offsets (inside a Korean
// character, say) or into a number of nearly equal pieces.
struct Pieces {
    QList<qsizetype> cuts; // offsets into the bytes, ascending; used when not empty
    int count = 1;
    int gapMs = 0;

    static Pieces at(const QList<qsizetype> &cuts, int gapMs) { return {cuts, 1, gapMs}; }
    static Pieces even(int count, int gapMs) { return {{}, count, gapMs}; }

    // The bytes as they go out; one piece when nothing cuts them.
    QList<QByteArray> split(const QByteArray &bytes) const;
};

// Writes each piece on its own, `gapMs` apart, telling `sent` of each as it goes, then
// calls `done` (never, if the socket goes first).
void sendInPieces(QTcpSocket *socket, const QList<QByteArray> &pieces, int gapMs,
                  std::function<void(const QByteArray &piece)> sent, std::function<void()> done);

} // namespace devsim
