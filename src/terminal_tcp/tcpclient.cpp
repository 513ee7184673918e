#include "tcpclient.h"

TcpClient::TcpClient(const QHostAddress &address, quint16 port, QObject *parent)
    : QObject(parent), address(address), port(port), socket(new QTcpSocket(this)) {
    wire();
}

TcpClient::TcpClient(QTcpSocket *accepted, QObject *parent)
    : QObject(parent), address(accepted->peerAddress()), port(accepted->peerPort()), socket(accepted) {
    socket->setParent(this);
    step = Step::Connected;
    wire();
}

void TcpClient::wire() {
    timer.setSingleShot(true);
    // The vendors' time-outs are seconds the terminals are built around; a coarse timer may
    // be off by 5 %, a quarter of a second on SMARTRO's five.
    timer.setTimerType(Qt::PreciseTimer);
    connect(socket, &QTcpSocket::connected, this, &TcpClient::onConnected);
    connect(socket, &QTcpSocket::readyRead, this, &TcpClient::onReadyRead);
    connect(socket, &QTcpSocket::disconnected, this, &TcpClient::onDisconnected);
    connect(socket, &QTcpSocket::errorOccurred, this, &TcpClient::onError);
    connect(&timer, &QTimer::timeout, this, &TcpClient::onTimeout);
}

TcpClient::~TcpClient() {
    // An exchange cut short by the application's end: the socket closing below must not
    // run any step of it.
    socket->disconnect(this);
}

QString TcpClient::target() const {
    return QStringLiteral("%1:%2").arg(address.toString()).arg(port);
}

void TcpClient::connectToTerminal(int timeoutMs, ConnectDone done) {
    step = Step::Connecting;
    connectTimeoutMs = timeoutMs;
    connectDone = std::move(done);
    timer.start(timeoutMs);
    socket->connectToHost(address, port);
}

void TcpClient::onConnected() {
    if (step != Step::Connecting)
        return;
    timer.stop();
    step = Step::Connected;
    std::exchange(connectDone, nullptr)(std::nullopt);
}

bool TcpClient::send(const QByteArray &bytes) {
    if (socket->state() != QAbstractSocket::ConnectedState)
        return false;
    if (bytes.isEmpty())
        return true;
    return socket->write(bytes) == bytes.size();
}

void TcpClient::read(qint64 limit, int timeoutMs, TerminalAnswers::ReplyEnd end, ReadDone done) {
    step = Step::Reading;
    readLimit = limit;
    readEnd = end;
    readDone = std::move(done);
    // Bytes that came while nobody was reading wait in the socket, as they would in the
    // kernel for a blocking read; a connection that is already gone answers at once.
    if (socket->bytesAvailable() > 0 || socket->state() != QAbstractSocket::ConnectedState) {
        // A callback that reads again finds the next bytes at once; past a few levels the
        // answer comes from the event loop instead, so that a terminal sending megabytes
        // cannot stack one call per read.
        if (nesting >= maxNesting)
            QMetaObject::invokeMethod(
                this,
                [this] {
                    if (step == Step::Reading)
                        gather(true);
                },
                Qt::QueuedConnection);
        else
            gather(true);
        return;
    }
    timer.start(timeoutMs);
}

void TcpClient::onReadyRead() {
    if (step == Step::Reading || step == Step::Gathering)
        gather(true);
}

void TcpClient::gather(bool moreMayCome) {
    moreMayCome = moreMayCome && socket->state() == QAbstractSocket::ConnectedState;
    const QByteArray gathered = socket->peek(std::min(socket->bytesAvailable(), readLimit));
    const qsizetype length = TerminalAnswers::replyLength(gathered, readLimit, readEnd, moreMayCome);
    if (length > 0) {
        deliverRead(socket->read(length));
        return;
    }
    if (gathered.isEmpty()) {
        if (!moreMayCome)
            deliverRead(std::nullopt);
        return; // still waiting for the first byte, under the read's own time-out
    }
    // Part of a reply: the rest has this long to follow, counted from the latest piece.
    step = Step::Gathering;
    timer.start(TerminalAnswers::pieceGapMs);
}

void TcpClient::deliverRead(const std::optional<QByteArray> &bytes) {
    timer.stop();
    step = Step::Connected;
    const ReadDone done = std::exchange(readDone, nullptr);
    ++nesting;
    done(bytes);
    --nesting;
}

void TcpClient::onDisconnected() {
    peerClosed = true;
    if (step == Step::Reading || step == Step::Gathering)
        gather(false);
    else if (step == Step::Closing)
        finish();
}

void TcpClient::onError(QAbstractSocket::SocketError error) {
    if (error == QAbstractSocket::RemoteHostClosedError)
        peerClosed = true;
    switch (step) {
    case Step::Connecting: {
        const QString reason = socket->errorString();
        timer.stop();
        step = Step::Connected; // so that release() below is the one that ends it
        std::exchange(connectDone, nullptr)(reason);
        break;
    }
    case Step::Reading:
    case Step::Gathering:
        // The terminal hung up or the connection broke: the read ends with whatever
        // arrived before, or with nothing. Not from inside the socket's own error report:
        // the socket is half torn down there, and a step that writes (SMARTRO's
        // acknowledgement) would write to a descriptor already gone. disconnected()
        // normally comes first.
        QMetaObject::invokeMethod(
            this,
            [this] {
                if (step == Step::Reading || step == Step::Gathering)
                    gather(false);
            },
            Qt::QueuedConnection);
        break;
    case Step::Closing:
        if (socket->state() == QAbstractSocket::UnconnectedState)
            finish();
        break;
    case Step::Idle:
    case Step::Connected:
    case Step::Done:
        break;
    }
}

void TcpClient::onTimeout() {
    switch (step) {
    case Step::Connecting:
        socket->abort();
        step = Step::Connected;
        std::exchange(connectDone, nullptr)(
            QStringLiteral("connection timed out after %1 s").arg(connectTimeoutMs / 1000.0));
        break;
    case Step::Reading:
        deliverRead(std::nullopt);
        break;
    case Step::Gathering:
        gather(false); // the terminal paused: what came is the reply
        break;
    case Step::Closing:
        socket->abort(); // the terminal stopped reading; do not hold the socket for ever
        finish();
        break;
    case Step::Idle:
    case Step::Connected:
    case Step::Done:
        break;
    }
}

void TcpClient::close() {
    if (step == Step::Closing || step == Step::Done)
        return;
    step = Step::Closing;
    connectDone = nullptr;
    readDone = nullptr;
    timer.start(closeGraceMs);
    socket->disconnectFromHost();
    if (socket->state() == QAbstractSocket::UnconnectedState)
        finish();
}

void TcpClient::release() {
    if (step == Step::Done)
        return;
    connectDone = nullptr;
    readDone = nullptr;
    socket->abort();
    finish();
}

void TcpClient::finish() {
    if (step == Step::Done)
        return;
    step = Step::Done;
    timer.stop();
    emit finished();
}
