#include "serialterminal.h"

#include <QFile>
#include <QSocketNotifier>
#include <fcntl.h>
#include <unistd.h>

namespace devsim {

namespace {

// How long the line stays quiet before what came is taken as one request.
constexpr int requestGapMs = 30;

} // namespace

QByteArray SerialTerminal::frame(const QString &model, const QByteArray &answer) {
    if (model == QLatin1String("KIS-7430"))
        return QByteArray("\x02"
                          "00") +
               answer + '\x03'; // cut 3 in front, 1 behind
    return QByteArray("\x02"
                      "0000") +
           answer +
           QByteArray("00"
                      "\x03"); // cut 5 in front, 3 behind
}

SerialTerminal::SerialTerminal(const QString &model, const QByteArray &answer, QObject *parent)
    : QObject(parent), modelName(model), answerText(answer) {
    quiet.setSingleShot(true);
    quiet.setInterval(requestGapMs);
    connect(&quiet, &QTimer::timeout, this, &SerialTerminal::answer);
}

SerialTerminal::~SerialTerminal() {
    unplug();
}

bool SerialTerminal::plug(const QString &linkPath) {
    unplug();
    auto line = std::make_unique<PseudoTerminal>();
    if (!line->isValid())
        return false;
    // Held open by the terminal itself, so that the master never reads as hung up (and
    // never wakes the notifier for nothing) while the service has the port closed.
    heldSlave = ::open(QFile::encodeName(line->slavePath()).constData(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    pty = std::move(line);
    link = linkPath;
    if (!link.isEmpty()) {
        QFile::remove(link);
        if (!QFile::link(pty->slavePath(), link)) {
            link.clear();
            unplug();
            return false;
        }
    }
    readable = new QSocketNotifier(pty->masterDescriptor(), QSocketNotifier::Read, this);
    connect(readable, &QSocketNotifier::activated, this, &SerialTerminal::readLine);
    seen = 0;
    return true;
}

void SerialTerminal::unplug() {
    quiet.stop();
    delete readable;
    readable = nullptr;
    if (!link.isEmpty())
        QFile::remove(link);
    if (heldSlave >= 0)
        ::close(heldSlave);
    heldSlave = -1;
    pty.reset();
}

QString SerialTerminal::path() const {
    return link.isEmpty() ? devicePath() : link;
}

void SerialTerminal::note(const QString &what, const QByteArray &bytes) {
    if (log)
        log(wireLine(modelName, what, bytes, terminalText(bytes)));
}

void SerialTerminal::readLine() {
    const QByteArray &bytes = pty->received();
    if (bytes.size() == seen)
        return;
    const QByteArray chunk = bytes.mid(seen);
    seen = bytes.size();
    all += chunk;
    note(QStringLiteral("recv"), chunk);
    quiet.start();
}

void SerialTerminal::answer() {
    if (!pty)
        return;
    const QByteArray bytes = frame(modelName, answerText);
    if (!pty->write(bytes)) {
        if (log)
            log(QStringLiteral("%1 could not send its answer").arg(modelName));
        return;
    }
    ++answers;
    note(QStringLiteral("send"), bytes);
    emit answered();
}

} // namespace devsim
