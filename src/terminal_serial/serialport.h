#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QSerialPort>
#include <QString>

class SerialPort;

// Who hears from an open port: its bytes, its errors, and its device going away.
class SerialPortDelegate {
public:
    virtual ~SerialPortDelegate() = default;
    virtual void serialPortWasRemovedFromSystem(SerialPort &port) = 0;
    virtual void serialPortDidReceiveData(SerialPort &port, const QByteArray &data) = 0;
    virtual void serialPortDidEncounterError(SerialPort &port, QSerialPort::SerialPortError error) = 0;
};

// One serial device as the port list shows it. The manager keeps one object per device
// for as long as the device is present, so closing and reopening it keeps its baud rate;
// a device that comes back after an unplug is a new object with the line's defaults. An
// error on the line is not an unplug: only the port list says that a device has gone.
// Only the baud rate is ever set; data bits, parity, stop bits and flow control stay at
// 8N1 without flow control, which is what the supported terminals speak.
class SerialPort : public QObject {
    Q_OBJECT
public:
    SerialPort(const QString &path, const QString &description);
    ~SerialPort() override;

    // The device path that is opened, and the stable name the user's choice is stored as.
    const QString &path() const { return devicePath; }
    const QString &description() const { return stableName; }

    bool open();
    void close();
    bool isOpen() const;
    bool setBaudRate(qint32 rate);
    qint32 baudRate() const;
    // Queues the bytes for the line; false when the port is not open.
    bool sendData(const QByteArray &data);

    SerialPortDelegate *delegate() const { return portDelegate; }
    void setDelegate(SerialPortDelegate *delegate) { portDelegate = delegate; }

    // The device is gone: the port is closed and its delegate told, once.
    void wasRemovedFromSystem();
    bool isRemoved() const { return removed; }

    // The line broke while the device is still there (its descriptor hung up, the adapter
    // hiccuped): the same port is opened again, at the same baud rate. Reopening at once
    // after the last reopen waits a second, so a line that keeps breaking cannot spin.
    void reopenAfterLineFailure();

    static constexpr int reopenPauseMs = 1000;

signals:
    void didOpen();
    void didClose();
    // A read, write or resource error broke the open line (a pulled cable makes reads fail,
    // again and again); the port has stopped using it. Whoever keeps the port list decides
    // whether the device has gone or the line is to be opened again.
    void lineBroke();

private:
    void lineFailed(QSerialPort::SerialPortError error);
    void reopen();

    QString devicePath;
    QString stableName;
    QSerialPort line;
    SerialPortDelegate *portDelegate = nullptr;
    bool removed = false;
    bool failed = false; // the line broke since the last open
    QElapsedTimer sinceReopen;
};
