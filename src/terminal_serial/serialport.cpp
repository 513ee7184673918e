#include "serialport.h"

#include <QTimer>

SerialPort::SerialPort(const QString &path, const QString &description)
    : devicePath(path), stableName(description) {
    line.setPortName(path);
    connect(&line, &QSerialPort::readyRead, this, [this] {
        const QByteArray data = line.readAll();
        if (!data.isEmpty() && portDelegate)
            portDelegate->serialPortDidReceiveData(*this, data);
    });
    connect(&line, &QSerialPort::errorOccurred, this, &SerialPort::lineFailed);
}

SerialPort::~SerialPort() {
    portDelegate = nullptr;
    line.close();
}

bool SerialPort::open() {
    if (line.isOpen())
        return true;
    failed = false;
    line.clearError();
    if (!line.open(QIODevice::ReadWrite))
        return false;
    emit didOpen();
    return true;
}

void SerialPort::close() {
    failed = false; // closed on purpose: no reopening after a broken line
    if (!line.isOpen())
        return;
    line.close();
    emit didClose();
}

bool SerialPort::isOpen() const {
    return line.isOpen();
}

bool SerialPort::setBaudRate(qint32 rate) {
    return line.setBaudRate(rate);
}

qint32 SerialPort::baudRate() const {
    return line.baudRate();
}

bool SerialPort::sendData(const QByteArray &data) {
    if (!line.isOpen() || failed)
        return false;
    return line.write(data) == data.size();
}

void SerialPort::wasRemovedFromSystem() {
    if (removed)
        return;
    removed = true;
    close();
    if (portDelegate)
        portDelegate->serialPortWasRemovedFromSystem(*this);
}

void SerialPort::lineFailed(QSerialPort::SerialPortError error) {
    if (error == QSerialPort::NoError)
        return;
    if (portDelegate)
        portDelegate->serialPortDidEncounterError(*this, error);

    // A vanished or hung-up tty does not report ResourceError but ReadError, and keeps
    // reporting it for as long as the descriptor is open: every wake-up of the event loop
    // would find the same dead descriptor readable. The line is closed at once, then the
    // port list says what it was.
    const bool broken = error == QSerialPort::ReadError || error == QSerialPort::WriteError ||
                        error == QSerialPort::ResourceError;
    if (!broken || failed || !line.isOpen())
        return;
    failed = true;
    // Closed from the event loop rather than from inside the port's own notification;
    // `failed` keeps the repeats until then from counting twice.
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (!failed || removed || !line.isOpen())
                return;
            line.close();
            emit didClose();
            emit lineBroke();
        },
        Qt::QueuedConnection);
}

void SerialPort::reopenAfterLineFailure() {
    if (removed)
        return;
    if (sinceReopen.isValid() && sinceReopen.elapsed() < reopenPauseMs)
        QTimer::singleShot(reopenPauseMs, this, &SerialPort::reopen);
    else
        reopen();
}

void SerialPort::reopen() {
    if (removed || !failed)
        return;
    sinceReopen.start();
    // QSerialPort applies the baud rate it was given at every open. One that cannot be
    // opened stays closed until a reload of the port list opens it again.
    open();
}
