#include "tcpclient.h"

TcpClient::TcpClient(const QHostAddress &address, quint16 port, QObject *parent)
    : QObject(parent), address(address), port(port) {
    timer.setSingleShot(true);
    connect(&socket, &QTcpSocket::connected, this, &TcpClient::onConnected);
    connect(&socket, &QTcpSocket::readyRead, this, &TcpClient::onReadyRead);
    connect(&socket, &QTcpSocket::disconnected, this, &TcpClient::onDisconnected);
    connect(&socket, &QTcpSocket::errorOccurred, this, &TcpClient::onError);
    connect(&timer, &QTimer::timeout, this, &TcpClient::onTimeout);
}

TcpClient::~TcpClient() {
    // An exchange cut short by the application's end: the socket closing below must not
    // run any step of it.
    socket.disconnect(this);
}

QString TcpClient::target() const {
    return QStringLiteral("%1:%2").arg(address.toString()).arg(port);
}

void TcpClient::connectToTerminal(int timeoutMs, ConnectDone done) {
    step = Step::Connecting;
    connectTimeoutMs = timeoutMs;
    connectDone = std::move(done);
    timer.start(timeoutMs);
    socket.connectToHost(address, port);
}

void TcpClient::onConnected() {
    if (step != Step::Connecting)
        return;
    timer.stop();
    step = Step::Connected;
    std::exchange(connectDone, nullptr)(std::nullopt);
}

bool TcpClient::send(const QByteArray &bytes) {
    if (socket.state() != QAbstractSocket::ConnectedState)
        return false;
    if (bytes.isEmpty())
        return true;
    return socket.write(bytes) == bytes.size();
}

void TcpClient::read(qint64 limit, int timeoutMs, ReadDone done) {
    step = Step::Reading;
    readLimit = limit;
    readDone = std::move(done);
    // Bytes that came while nobody was reading wait in the socket, as they would in the
    // kernel for a blocking read; a connection that is already gone answers at once.
    if (socket.bytesAvailable() > 0 || socket.state() != QAbstractSocket::ConnectedState) {
        // A callback that reads again finds the next bytes at once; past a few levels the
        // answer comes from the event loop instead, so that a terminal sending megabytes
        // cannot stack one call per read.
        if (nesting >= maxNesting)
            QMetaObject::invokeMethod(
                this,
                [this] {
                    if (step == Step::Reading)
                        deliverRead();
                },
                Qt::QueuedConnection);
        else
            deliverRead();
        return;
    }
    timer.start(timeoutMs);
}

void TcpClient::onReadyRead() {
    if (step == Step::Reading)
        deliverRead();
}

void TcpClient::deliverRead() {
    timer.stop();
    step = Step::Connected;
    const ReadDone done = std::exchange(readDone, nullptr);
    ++nesting;
    if (socket.bytesAvailable() > 0)
        done(socket.read(readLimit));
    else
        done(std::nullopt);
    --nesting;
}

void TcpClient::onDisconnected() {
    if (step == Step::Reading)
        deliverRead();
    else if (step == Step::Closing)
        finish();
}

void TcpClient::onError(QAbstractSocket::SocketError) {
    switch (step) {
    case Step::Connecting: {
        const QString reason = socket.errorString();
        timer.stop();
        step = Step::Connected; // so that release() below is the one that ends it
        std::exchange(connectDone, nullptr)(reason);
        break;
    }
    case Step::Reading:
        // The terminal hung up or the connection broke: the read ends with whatever
        // arrived before, or with nothing.
        deliverRead();
        break;
    case Step::Closing:
        if (socket.state() == QAbstractSocket::UnconnectedState)
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
        socket.abort();
        step = Step::Connected;
        std::exchange(connectDone, nullptr)(
            QStringLiteral("connection timed out after %1 s").arg(connectTimeoutMs / 1000.0));
        break;
    case Step::Reading:
        step = Step::Connected;
        std::exchange(readDone, nullptr)(std::nullopt);
        break;
    case Step::Closing:
        socket.abort(); // the terminal stopped reading; do not hold the socket for ever
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
    socket.disconnectFromHost();
    if (socket.state() == QAbstractSocket::UnconnectedState)
        finish();
}

void TcpClient::release() {
    if (step == Step::Done)
        return;
    connectDone = nullptr;
    readDone = nullptr;
    socket.abort();
    finish();
}

void TcpClient::finish() {
    if (step == Step::Done)
        return;
    step = Step::Done;
    timer.stop();
    emit finished();
}
