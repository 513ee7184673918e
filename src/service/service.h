#pragma once

#include "common/textlabel.h"
#include "gateway/websocketviewcontroller.h"
#include "terminal_serial/usbviewcontroller.h"
#include "terminal_tcp/tcpviewcontroller.h"

#include <QObject>
#include <QString>

// The gateway hands terminal requests to the two channels and takes their answers. Any of
// them may be missing. (Which channel is active is the settings' to say: each page steps
// back by itself when the other interface is chosen.)
void connectTerminalChannels(WebSocketViewController *gateway, TCPViewController *tcp,
                             USBViewController *usb);

// The whole service: the POS gateway (kitchen printing and the pending store behind it), the
// TCP channel with its answer listeners, and the USB channel with the stored port. With a
// screen, the popover's pages show these and loading each page starts its part, as the
// pages always have. Without one, start() loads them in the order the pages do, so a shop
// running --headless sees the same lines, listeners and ports as one with the tray.
class Service : public QObject {
    Q_OBJECT
public:
    explicit Service(QObject *parent = nullptr);
    ~Service() override;

    void start();

    // The gateway's status as its page would show it ("서비스 시작" once it listens).
    QString gatewayStatus() const { return status.text; }

    WebSocketViewController &gateway() { return gatewayController; }
    TCPViewController &tcp() { return tcpChannel; }
    USBViewController &usb() { return usbChannel; }

private:
    // Keeps what the gateway writes to its status label; nobody draws it.
    struct StatusText : TextLabel {
        QString text;
        void setStringValue(const QString &t) override { text = t; }
        void setTextColor(Qt::GlobalColor) override {}
    };

    StatusText status;
    WebSocketViewController gatewayController;
    TCPViewController tcpChannel;
    USBViewController usbChannel;
};
