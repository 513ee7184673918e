#pragma once

#include "pseudoterminal.h"
#include "wiretext.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QTimer>
#include <memory>

class QSocketNotifier;

namespace devsim {

// A card terminal on a serial line (a pseudo-terminal): it answers every request with a
// frame in its model's framing. A request is whatever the service writes until the line
// has been quiet for a moment, since the service sends it unframed. The terminal can be
// pulled out and plugged in again; a link that exists only while it is plugged stands for
// the adapter's name, so the service sees the same port come and go.
class SerialTerminal : public QObject {
    Q_OBJECT
public:
    static QStringList models() { return {"TS-132N", "TS-167", "SMT-T263", "KIS-7430"}; }
    // The answer framed as `model` sends it: STX, header bytes, the text, trailer bytes, ETX,
    // so that the service's cut for that model leaves the text alone.
    static QByteArray frame(const QString &model, const QByteArray &answer);

    SerialTerminal(const QString &model, const QByteArray &answer, QObject *parent = nullptr);
    ~SerialTerminal() override;

    // Creates the line and, when `linkPath` is given, the link to it. False when the system
    // has no pseudo-terminal to give.
    bool plug(const QString &linkPath = {});
    void unplug();
    bool isPlugged() const { return pty != nullptr; }
    // The path the service should open: the link, or the line itself when there is none.
    QString path() const;
    QString devicePath() const { return pty ? pty->slavePath() : QString(); }
    QString model() const { return modelName; }
    void setLog(LineSink sink) { log = std::move(sink); }

    QByteArray received() const { return all; }
    int answerCount() const { return answers; }

signals:
    void answered();

private:
    void readLine();
    void answer();
    void note(const QString &what, const QByteArray &bytes);

    QString modelName;
    QByteArray answerText;
    QString link;
    std::unique_ptr<PseudoTerminal> pty;
    int heldSlave = -1;
    QSocketNotifier *readable = nullptr;
    QTimer quiet;
    QByteArray all;
    qsizetype seen = 0;
    int answers = 0;
    LineSink log;
};

} // namespace devsim
