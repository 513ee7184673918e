#include "usbviewcontroller.h"

#include "common/cp949.h"
#include "common/fatal.h"
#include "common/settings.h"
#include "common/textform.h"

USBViewController::USBViewController(SerialPortManager &manager, QObject *parent)
    : TerminalChannel(parent), serialPortManager(manager) {
    // Another interface chosen: this page steps back. The settings are that page's to
    // write; only the look and the controls change here.
    connect(&Settings::shared(), &Settings::interfaceChosen, this, [this](Settings::Interface chosen) {
        if (chosen != Settings::Interface::Usb)
            otherInterfaceChosen();
    });
}

USBViewController::~USBViewController() {
    // The manager keeps the port; it must not keep calling a controller that is gone.
    setSerialPort(nullptr);
}

void USBViewController::setSerialPort(std::shared_ptr<SerialPort> newPort) {
    const std::shared_ptr<SerialPort> old = std::exchange(port, std::move(newPort));
    if (old) {
        old->close();
        old->setDelegate(nullptr);
    }
    if (port)
        port->setDelegate(this);
}

void USBViewController::viewDidLoad() {
    loadPortList();
    loadBaudList();

    connect(&serialPortManager, &SerialPortManager::serialPortsWereConnected, this,
            &USBViewController::serialPortsWereConnected);
    connect(&serialPortManager, &SerialPortManager::serialPortsWereDisconnected, this,
            &USBViewController::serialPortsWereDisconnected);

    const std::optional<QString> deviceType = Settings::shared().text(Settings::Key::SerialDeviceType);
    if (!deviceType) {
        Settings::shared().fillDefault(Settings::Key::SerialDeviceType);
    } else {
        const qsizetype index = availableDeviceType.indexOf(*deviceType);
        if (index >= 0 && deviceTypePopupButton)
            deviceTypePopupButton->selectItemAtIndex(static_cast<int>(index));
    }
}

void USBViewController::viewDidAppear() {
    if (Settings::shared().mainInterface() == Settings::Interface::Usb) {
        showSelected();
        selectUsb();
    }
}

void USBViewController::loadPortList() {
    const SerialPortList ports = serialPortManager.availablePorts();
    QStringList names;
    for (const auto &p : ports)
        names << p->description();
    if (portPopupButton) {
        portPopupButton->removeAllItems();
        portPopupButton->addItemsWithTitles(names);
    }

    // The stored port is opened whenever it is listed: at start, and every time the list
    // changes, which is what brings a replugged terminal back by itself.
    const std::optional<QString> stored = Settings::shared().text(Settings::Key::UsbPort);
    if (!stored)
        return;
    const qsizetype index = names.indexOf(*stored);
    if (index < 0)
        return;
    qsizetype selected = index;
    if (portPopupButton) {
        portPopupButton->selectItemAtIndex(static_cast<int>(index));
        selected = portPopupButton->indexOfSelectedItem();
    }
    if (selected < 0 || selected >= ports.size())
        fatalStop(QStringLiteral("the port list and its popup disagree"));
    setSerialPort(ports.at(selected));
    port->open();
}

void USBViewController::loadBaudList() {
    if (baudPopupButton) {
        baudPopupButton->removeAllItems();
        baudPopupButton->addItemsWithTitles(availableBaudRates);
    }
    const std::optional<QString> stored = Settings::shared().text(Settings::Key::BaudRate);
    if (!stored) {
        // Nothing is selected or set: the line keeps its default rate, which is the
        // setting's default.
        Settings::shared().fillDefault(Settings::Key::BaudRate);
        return;
    }
    const qsizetype index = availableBaudRates.indexOf(*stored);
    if (index < 0)
        return;
    if (baudPopupButton)
        baudPopupButton->selectItemAtIndex(static_cast<int>(index));
    if (port)
        port->setBaudRate(baudFromTitle(availableBaudRates.at(index)));
}

qint32 USBViewController::baudFromTitle(const QString &title) const {
    const std::optional<qint32> rate = parseInt32(title);
    if (!rate)
        fatalStop(QStringLiteral("the baud rate \"%1\" is not a number").arg(title));
    return *rate;
}

void USBViewController::portChanged() {
    const SerialPortList ports = serialPortManager.availablePorts();
    const int index = portPopupButton ? portPopupButton->indexOfSelectedItem() : -1;
    if (index < 0 || index >= ports.size())
        fatalStop(QStringLiteral("the chosen serial port is no longer in the list"));
    setSerialPort(ports.at(index));
    Settings::shared().set(Settings::Key::UsbPort, port->description());
    port->open();
    port->setBaudRate(baudFromTitle(baudPopupButton ? baudPopupButton->titleOfSelectedItem() : QString()));
}

void USBViewController::baudrateChanged() {
    const QString title = baudPopupButton ? baudPopupButton->titleOfSelectedItem() : QString();
    Settings::shared().set(Settings::Key::BaudRate, title);
    // The open port takes the new rate as it is, without being reopened.
    if (port)
        port->setBaudRate(baudFromTitle(title));
}

void USBViewController::deviceTypeChanged() {
    // Read again for every answer, so the next one is cut the new model's way.
    Settings::shared().set(Settings::Key::SerialDeviceType,
                           deviceTypePopupButton ? deviceTypePopupButton->titleOfSelectedItem() : QString());
}

void USBViewController::titleLabelClickedWithSender() {
    showSelected();
    selectUsb();
}

void USBViewController::selectUsb() {
    // The TCP page steps back: the choice is announced every time, also when USB was
    // already the one.
    Settings::shared().chooseInterface(Settings::Interface::Usb);
    setControlsEnabled(true);
}

void USBViewController::showSelected() {
    showTitleSelected(titleLabel);
}

void USBViewController::showDeselected() {
    showTitleDeselected(titleLabel);
    setControlsEnabled(false);
}

void USBViewController::setControlsEnabled(bool enabled) {
    for (ControlOutlet *control : std::initializer_list<ControlOutlet *>{
             portPopupButton, baudPopupButton, connectionTestButton, deviceTypePopupButton})
        if (control)
            control->setEnabled(enabled);
}

void USBViewController::connectionTestClicked() {
    std::optional<QByteArray> bytes = cp949::encode(testPrintText);
    if (!bytes)
        fatalStop(QStringLiteral("the test print text has no code page 949 form"));
    // ESC i and a line feed: cut the slip.
    bytes->append("\x1b\x69\x0a", 3);
    if (port)
        port->sendData(*bytes);
}

void USBViewController::handleRequest(const TerminalRequest &request) {
    if (!request.requestType)
        fatalStop(QStringLiteral("the \"requesttype\" of a USB terminal request is not text"));
    const QString &type = *request.requestType;

    // "msg" is no request type of the POS protocol (the pages once used it among
    // themselves): one from the POS means it and the service disagree about the protocol.
    if (type == QLatin1String("msg"))
        fatalStop(QStringLiteral("a USB control message has no \"msg\""));

    if (type == QLatin1String("print")) {
        const QByteArray &data = request.data;
        if (!port)
            return;
        const std::optional<QString> text = strictUtf8(data);
        if (!text)
            fatalStop(QStringLiteral("the text of a USB print request is not UTF-8"));
        const std::optional<QByteArray> bytes = cp949::encode(*text);
        if (!bytes)
            fatalStop(QStringLiteral("the text of a USB print request has characters code page 949 lacks"));
        port->sendData(*bytes);
        return;
    }

    // Payments and everything else: the POS sends the terminal's own frame, byte for byte.
    if (!port)
        return;
    port->sendData(request.data);
}

void USBViewController::otherInterfaceChosen() {
    showDeselected();
}

void USBViewController::serialPortsWereConnected(const SerialPortList &) {
    hotPlugged();
}

void USBViewController::serialPortsWereDisconnected(const SerialPortList &) {
    hotPlugged();
}

void USBViewController::hotPlugged() {
    // Reopens the stored port when it is among those now listed. The port in use is not
    // dropped here: its own removal says when it is gone.
    loadPortList();
}

void USBViewController::serialPortWasRemovedFromSystem(SerialPort &) {
    setSerialPort(nullptr);
    loadPortList();
}

void USBViewController::serialPortDidReceiveData(SerialPort &, const QByteArray &data) {
    if (const std::optional<TerminalAnswer> answer = answerFraming.didReceiveData(data))
        emit answerReady(*answer);
}

void USBViewController::serialPortDidEncounterError(SerialPort &, QSerialPort::SerialPortError) {
    // Nothing to do: the port list decides whether a broken line means the device has gone
    // (then it comes back as its removal) or is opened again; a write that fails is not
    // retried.
}
