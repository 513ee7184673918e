#include "usbviewcontroller.h"
#include "common/settingkeys.h"

#include "common/cp949.h"
#include "common/fatal.h"
#include "common/textform.h"
#include "common/userdefaults.h"

namespace {

constexpr int defaultBaudRate = 9600;

std::optional<QString> storedText(const QString &key) {
    const std::optional<QVariant> value = UserDefaults::standard().value(key);
    if (!value)
        return std::nullopt;
    return textualForm(*value);
}

} // namespace

USBViewController::USBViewController(SerialPortManager &manager, QObject *parent)
    : TerminalChannel(parent), serialPortManager(manager) {}

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

    const std::optional<QString> deviceType = storedText(SettingKey::serialDeviceType);
    if (!deviceType) {
        UserDefaults::standard().setValue(SettingKey::serialDeviceType, availableDeviceType.first());
    } else {
        const qsizetype index = availableDeviceType.indexOf(*deviceType);
        if (index >= 0 && deviceTypePopupButton)
            deviceTypePopupButton->selectItemAtIndex(static_cast<int>(index));
    }
}

void USBViewController::viewDidAppear() {
    if (storedText(SettingKey::mainInterface) == QLatin1String("USB")) {
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
    const std::optional<QString> stored = storedText(SettingKey::usbPort);
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
    const std::optional<QString> stored = storedText(SettingKey::baudRate);
    if (!stored) {
        // Nothing is selected or set: the line keeps its default rate, which is this one.
        UserDefaults::standard().setValue(SettingKey::baudRate, defaultBaudRate);
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
    UserDefaults::standard().setValue(SettingKey::usbPort, port->description());
    port->open();
    port->setBaudRate(baudFromTitle(baudPopupButton ? baudPopupButton->titleOfSelectedItem() : QString()));
}

void USBViewController::baudrateChanged() {
    const QString title = baudPopupButton ? baudPopupButton->titleOfSelectedItem() : QString();
    UserDefaults::standard().setValue(SettingKey::baudRate, title);
    // The open port takes the new rate as it is, without being reopened.
    if (port)
        port->setBaudRate(baudFromTitle(title));
}

void USBViewController::deviceTypeChanged() {
    // Read again for every answer, so the next one is cut the new model's way.
    UserDefaults::standard().setValue(SettingKey::serialDeviceType,
                                      deviceTypePopupButton ? deviceTypePopupButton->titleOfSelectedItem()
                                                            : QString());
}

void USBViewController::titleLabelClickedWithSender() {
    showSelected();
    selectUsb();
}

void USBViewController::selectUsb() {
    UserDefaults::standard().setValue(SettingKey::mainInterface, QStringLiteral("USB"));
    // The TCP page steps back. Said every time, also when USB was already the one.
    emit interfaceChosen();
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
    // The settings are the TCP page's to write; only the look and the controls change here.
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
