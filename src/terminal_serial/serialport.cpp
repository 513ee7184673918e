#include "serialport.h"

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

    // On Linux a vanished tty or pty does not report ResourceError but ReadError, and
    // keeps reporting it for as long as the descriptor is open: every wake-up of the
    // event loop would find the same dead descriptor readable. Whatever says the device
    // is gone is taken as its removal, once.
    const bool gone = error == QSerialPort::ReadError || error == QSerialPort::WriteError ||
                      error == QSerialPort::ResourceError;
    if (!gone || failed || !line.isOpen())
        return;
    failed = true;
    // Closed from the event loop rather than from inside the port's own notification;
    // `failed` keeps the repeats until then from counting twice.
    QMetaObject::invokeMethod(
        this,
        [this] {
            close();
            emit deviceVanished();
        },
        Qt::QueuedConnection);
}
