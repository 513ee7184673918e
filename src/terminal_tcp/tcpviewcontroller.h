#pragma once

#include "common/localaddresses.h"
#include "common/outlets.h"
#include "common/terminalchannel.h"
#include "common/textlabel.h"
#include "vendorsenders.h"

#include <QObject>
#include <QPointer>
#include <QVariant>
#include <functional>

class TerminalListener;

// The TCP card-terminal channel and its settings page: the terminal's vendor and IP
// address, the connection test, and the title that makes TCP the active interface. It
// takes the POS's terminal requests from the gateway and hands each to its vendor's
// sender; answers go out as answerReady, either from the request's own connection or from
// the two answer listeners this page starts when it loads.
class TCPViewController : public TerminalChannel {
    Q_OBJECT
public:
    static inline const QStringList vendors{Vendor::KICC, Vendor::KIS, Vendor::SMARTRO};
    static inline const QString testPrintText = QStringLiteral("    테라노소프트 테스트 문자\n\n\n");
    static inline const QString smartroTestPrintText = QStringLiteral("SMARTRO test print");

    explicit TCPViewController(QObject *parent = nullptr);
    ~TCPViewController() override;

    void viewDidLoad();
    void viewDidAppear();
    void deviceTypeChanged();
    void titleLabelClicked();
    void ipTextfieldEnter();
    void connectionTestClicked();
    void handleRequest(const TerminalRequest &request) override;
    // The USB channel was made the active one (the settings announce it): this page steps
    // back.
    void otherInterfaceChosen();

    ControlOutlet *container = nullptr;
    TextLabel *kiccLabel = nullptr;    // shows whether the KICC answer listener is up
    TextLabel *kisLabel = nullptr;     // KIS answers on the request's connection: no listener
    TextLabel *smartroLabel = nullptr; // shows whether the SMARTRO answer listener is up
    TitleOutlet *titleLabel = nullptr;
    TextFieldOutlet *ipTextfield = nullptr;
    ControlOutlet *connectionTestButton = nullptr;
    PopUpButtonOutlet *tcpDevicePopupButton = nullptr;

    // What the page talks to; tests point these at loopback, other ports and short waits.
    std::function<QStringList()> localAddressLookup = localAddresses;
    quint16 kiccAnswerPort = VendorPorts{}.kicc;
    quint16 smartroAnswerPort = VendorPorts{}.smartro;
    VendorSenders senders;

    const TerminalListener *kiccListener() const { return kicc; }
    const TerminalListener *smartroListener() const { return smartro; }

private:
    TerminalListener *startListener(quint16 port, const QString &vendor, const QString &deviceName,
                                    bool announcesClients, TextLabel *statusLabel);
    void paintActive();
    void paintInactive();
    AnswerSink answerSink();

    TerminalListener *kicc = nullptr;
    TerminalListener *smartro = nullptr;
};
