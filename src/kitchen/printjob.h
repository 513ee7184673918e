#pragma once

#include "common/fatal.h"
#include "common/log.h"
#include "kitchenprintservice.h"

#include <QTcpSocket>
#include <QTimer>
#include <functional>
#include <optional>
#include <utility>

// One order on its way to one printer. Lives only as long as its connection.
// Without an outcome callback, a printer that cannot be reached is reported in one line;
// with one, the callback hears whether the order was handed over (every byte written) and
// the caller decides what to say.
class PrintJob : public QObject {
public:
    using Outcome = std::function<void(bool delivered)>;

    PrintJob(const QString &address, quint16 port, const std::optional<QByteArray> &payload,
             Outcome outcome = nullptr)
        : address(address), port(port), payload(payload), outcome(std::move(outcome)) {
        timer.setSingleShot(true);
        connect(&socket, &QTcpSocket::connected, this, &PrintJob::onConnected);
        connect(&socket, &QTcpSocket::errorOccurred, this, &PrintJob::onError);
        connect(&socket, &QTcpSocket::bytesWritten, this, &PrintJob::onBytesWritten);
        connect(&socket, &QTcpSocket::readyRead, this, &PrintJob::finishRead);
        connect(&socket, &QTcpSocket::disconnected, this, &PrintJob::onDisconnected);
        connect(&timer, &QTimer::timeout, this, &PrintJob::onTimeout);
    }

    void start() {
        stage = Stage::Connecting;
        timer.start(KitchenPrintService::connectTimeoutMs);
        socket.connectToHost(address, port);
    }

private:
    enum class Stage { Idle, Connecting, Sending, Reading, Done };

    QString target() const { return QStringLiteral("%1:%2").arg(address, QString::number(port)); }

    void fail(const QString &what) {
        // The printer is gone or never answered: report once and let go of the socket
        // without the orderly close.
        if (!outcome)
            logLine(singleLine(QStringLiteral("kitchen printer %1: %2").arg(target(), what)));
        stage = Stage::Done;
        timer.stop();
        socket.abort();
        deleteLater();
        if (outcome)
            std::exchange(outcome, nullptr)(false);
    }

    void onConnected() {
        timer.stop();
        if (!payload)
            fatalStop(QStringLiteral("kitchen order for %1 is not valid UTF-8 or has characters that code "
                                     "page 949 cannot represent")
                          .arg(target()));
        if (payload->isEmpty()) {
            startRead();
            return;
        }
        stage = Stage::Sending;
        remaining = payload->size();
        timer.start(KitchenPrintService::sendStallTimeoutMs);
        socket.write(*payload);
    }

    void onBytesWritten(qint64 written) {
        if (stage != Stage::Sending)
            return;
        remaining -= written;
        if (remaining <= 0)
            startRead();
        else
            timer.start(KitchenPrintService::sendStallTimeoutMs); // it is still taking bytes
    }

    void startRead() {
        if (outcome)
            std::exchange(outcome, nullptr)(true);
        // The reply is never examined; this wait only keeps the connection open long
        // enough for the printer to take the job before it sees the close.
        stage = Stage::Reading;
        timer.start(KitchenPrintService::readTimeoutMs);
        // A printer that spoke while the order was still going out (a status it sends on
        // connect) has already given its reply: the read has it at once, no second wait.
        if (printerSpoke || socket.bytesAvailable() > 0)
            finishRead();
    }

    void finishRead() {
        socket.read(KitchenPrintService::readLimit);
        if (stage != Stage::Reading) {
            printerSpoke = true; // arrived before the send finished
            return;
        }
        close();
    }

    void close() {
        stage = Stage::Done;
        timer.stop();
        socket.disconnectFromHost();
        if (socket.state() == QAbstractSocket::UnconnectedState)
            deleteLater();
    }

    void onTimeout() {
        if (stage == Stage::Connecting)
            fail(QStringLiteral("connection timed out after %1 s")
                     .arg(KitchenPrintService::connectTimeoutMs / 1000));
        else if (stage == Stage::Sending)
            // A printer that accepts the connection and then stops reading would hold the
            // order, and its memory, for ever.
            fail(QStringLiteral("the printer took no more of the order for %1 s (%2 of %3 bytes left)")
                     .arg(KitchenPrintService::sendStallTimeoutMs / 1000)
                     .arg(remaining)
                     .arg(payload->size()));
        else if (stage == Stage::Reading)
            close();
    }

    void onError(QAbstractSocket::SocketError) {
        switch (stage) {
        case Stage::Connecting:
        case Stage::Sending:
            fail(socket.errorString());
            break;
        case Stage::Reading:
            close(); // the printer hung up: the read simply comes back empty
            break;
        case Stage::Idle:
        case Stage::Done:
            break;
        }
    }

    void onDisconnected() {
        if (stage == Stage::Done)
            deleteLater();
        else if (stage == Stage::Sending)
            fail(QStringLiteral("the printer closed the connection (%1 of %2 bytes left)")
                     .arg(remaining)
                     .arg(payload->size()));
        else if (stage == Stage::Reading)
            close();
    }

    QString address;
    quint16 port;
    std::optional<QByteArray> payload;
    Outcome outcome;
    QTcpSocket socket;
    QTimer timer;
    Stage stage = Stage::Idle;
    qint64 remaining = 0;
    bool printerSpoke = false;
};
