#pragma once

#include "common/outlets.h"
#include "common/terminalchannel.h"
#include "serialanswerframing.h"
#include "serialport.h"
#include "serialportmanager.h"

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QVariant>
#include <memory>

// The card terminal on a USB serial adapter, and the USB section of the settings.
//
// Keeps the chosen port, baud rate and terminal model in the settings, opens the chosen
// port whenever it is plugged in (so pulling the cable and plugging it back needs nobody
// at the computer), makes USB the active terminal interface when its title is clicked,
// and writes the POS's terminal requests to the line: the POS sends complete terminal
// frames, which go out unchanged, and print texts, which go out in code page 949. The
// terminal's answers are gathered by the answer framing and given as answerReady.
//
// The page's controls are reached through outlets; an outlet the page has not connected
// is simply not drawn on.
class USBViewController : public TerminalChannel, public SerialPortDelegate {
    Q_OBJECT
public:
    explicit USBViewController(SerialPortManager &manager = SerialPortManager::sharedSerialPortManager(),
                               QObject *parent = nullptr);
    ~USBViewController() override;

    static inline const QString testPrintText = QStringLiteral("韓子韓子韓子韓子 문자\n\n\n");

    PopUpButtonOutlet *portPopupButton = nullptr;
    PopUpButtonOutlet *baudPopupButton = nullptr;
    TitleOutlet *titleLabel = nullptr;
    QPointer<QObject> container; // the frame of the section; never drawn on
    ControlOutlet *connectionTestButton = nullptr;
    PopUpButtonOutlet *deviceTypePopupButton = nullptr;
    const QStringList availableBaudRates{QStringLiteral("9600"), QStringLiteral("38400"),
                                         QStringLiteral("57600"), QStringLiteral("115200")};
    const QStringList availableDeviceType{QStringLiteral("TS-132N"), QStringLiteral("TS-167"),
                                          QStringLiteral("KIS-7430")};
    SerialPortManager &serialPortManager;

    // The open (or last opened) port. Setting it always closes the one it replaces, even
    // when it is the same port, and makes this controller the new port's delegate.
    const std::shared_ptr<SerialPort> &serialPort() const { return port; }
    void setSerialPort(std::shared_ptr<SerialPort> newPort);

    // The terminal answer being collected.
    const QByteArray &combinedATransactionData() const { return answerFraming.combinedATransactionData(); }

    // Life cycle: the page calls viewDidLoad once its controls are connected (and its
    // title's click is wired to titleLabelClickedWithSender), viewDidAppear whenever it is
    // shown.
    void viewDidLoad();
    void viewDidAppear();

    // The page's actions: only the user's own choices call these.
    void portChanged();
    void baudrateChanged();
    void deviceTypeChanged();
    void titleLabelClickedWithSender();
    void connectionTestClicked();

    // A terminal request from the POS.
    void handleRequest(const TerminalRequest &request) override;
    // The TCP channel was made the active one (the settings announce it): this page steps
    // back.
    void otherInterfaceChosen();

    // Adapters plugged in or pulled out anywhere on the system.
    void serialPortsWereConnected(const SerialPortList &ports);
    void serialPortsWereDisconnected(const SerialPortList &ports);

    void serialPortWasRemovedFromSystem(SerialPort &port) override;
    void serialPortDidReceiveData(SerialPort &port, const QByteArray &data) override;
    void serialPortDidEncounterError(SerialPort &port, QSerialPort::SerialPortError error) override;

private:
    void loadPortList();
    void loadBaudList();
    void hotPlugged();
    void showSelected();
    void showDeselected();
    void selectUsb();
    void setControlsEnabled(bool enabled);
    qint32 baudFromTitle(const QString &title) const;

    std::shared_ptr<SerialPort> port;
    SerialAnswerFraming answerFraming;
};
