#include "pieces.h"

#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

namespace devsim {

QList<QByteArray> Pieces::split(const QByteArray &bytes) const {
    QList<qsizetype> at = cuts;
    if (at.isEmpty())
        for (int i = 1; i < count; ++i)
            at << bytes.size() * i / count;
    QList<QByteArray> pieces;
    qsizetype from = 0;
    for (const qsizetype cut : std::as_const(at)) {
        if (cut <= from || cut >= bytes.size())
            continue;
        pieces << bytes.mid(from, cut - from);
        from = cut;
    }
    pieces << bytes.mid(from);
    return pieces;
}

void sendInPieces(QTcpSocket *socket, const QList<QByteArray> &pieces, int gapMs,
                  std::function<void(const QByteArray &piece)> sent, std::function<void()> done) {
    if (pieces.isEmpty()) {
        done();
        return;
    }
    socket->write(pieces.first());
    socket->flush();
    if (sent)
        sent(pieces.first());
    if (pieces.size() == 1) {
        done();
        return;
    }
    QTimer::singleShot(gapMs, Qt::PreciseTimer, socket,
                       [guarded = QPointer<QTcpSocket>(socket), rest = pieces.mid(1), gapMs, sent, done] {
                           if (guarded && guarded->state() == QAbstractSocket::ConnectedState)
                               sendInPieces(guarded, rest, gapMs, sent, done);
                       });
}

} // namespace devsim
