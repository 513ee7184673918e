#include "service.h"

void connectTerminalChannels(WebSocketViewController *gateway, TCPViewController *tcp,
                             USBViewController *usb) {
    if (gateway)
        gateway->setTerminalChannels({tcp, usb});
}

Service::Service(QObject *parent) : QObject(parent) {
    gatewayController.websocketLabel = &status;
}

Service::~Service() = default;

void Service::start() {
    // The pages' order: the gateway, then the TCP channel's listeners, then the USB port;
    // then the gateway and the TCP page appear. The USB page appears only when it is shown.
    gatewayController.viewDidLoad();
    tcpChannel.viewDidLoad();
    usbChannel.viewDidLoad();
    connectTerminalChannels(&gatewayController, &tcpChannel, &usbChannel);
    gatewayController.viewDidAppear();
    tcpChannel.viewDidAppear();
}
