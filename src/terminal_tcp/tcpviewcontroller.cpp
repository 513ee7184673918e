#include "tcpviewcontroller.h"

#include "answerpeers.h"
#include "common/cp949.h"
#include "common/fatal.h"
#include "common/log.h"
#include "common/settings.h"
#include "common/textform.h"
#include "ipv4rule.h"
#include "terminallistener.h"

TCPViewController::TCPViewController(QObject *parent) : TerminalChannel(parent) {
    connect(&Settings::shared(), &Settings::interfaceChosen, this, [this](Settings::Interface chosen) {
        if (chosen != Settings::Interface::Tcp)
            otherInterfaceChosen();
    });
}

TCPViewController::~TCPViewController() = default;

void TCPViewController::viewDidLoad() {
    AnswerPeers::reportInvalidEntries();
    kicc = startListener(kiccAnswerPort, Vendor::KICC, TerminalDeviceName::KICC, false, kiccLabel);
    smartro =
        startListener(smartroAnswerPort, Vendor::SMARTRO, TerminalDeviceName::SMARTRO, true, smartroLabel);

    Settings &settings = Settings::shared();
    settings.fillDefault(Settings::Key::TcpDevice);
    const qsizetype index = vendors.indexOf(settings.string(Settings::Key::TcpDevice).value_or(QString()));
    if (index >= 0 && tcpDevicePopupButton)
        tcpDevicePopupButton->selectItemAtIndex(static_cast<int>(index));
    // The stored address is shown from the start, so the owner sees what the terminal
    // requests go to.
    if (ipTextfield)
        ipTextfield->setStringValue(settings.string(Settings::Key::TcpIp).value_or(QString()));
}

TerminalListener *TCPViewController::startListener(quint16 port, const QString &vendor,
                                                   const QString &deviceName, bool announcesClients,
                                                   TextLabel *statusLabel) {
    // Terminals deliver answers to the address of this machine on the shop network: the
    // first interface address that is up, running and not loopback.
    const QStringList addresses = localAddressLookup();
    if (addresses.isEmpty())
        fatalStop(
            QStringLiteral("no network interface is up to take card terminal answers on port %1").arg(port));
    auto *listener = new TerminalListener(vendor, deviceName, announcesClients, this);
    connect(listener, &TerminalListener::answerReady, this, &TerminalChannel::answerReady);
    if (!listener->listen(QHostAddress(addresses.first()), port)) {
        logLine(singleLine(QStringLiteral("%1 answer listener could not start on %2 port %3: %4")
                               .arg(vendor, addresses.first())
                               .arg(port)
                               .arg(listener->errorString())));
        delete listener;
        return nullptr;
    }
    if (statusLabel) {
        statusLabel->setStringValue(QStringLiteral("서비스 시작 완료"));
        statusLabel->setTextColor(Qt::green);
    }
    return listener;
}

void TCPViewController::viewDidAppear() {
    if (Settings::shared().mainInterface() == Settings::Interface::Tcp)
        paintActive();
}

void TCPViewController::deviceTypeChanged() {
    if (!tcpDevicePopupButton)
        return;
    const QString vendor = tcpDevicePopupButton->titleOfSelectedItem();
    Settings::shared().set(Settings::Key::TcpDevice, vendor);
    logLine(QStringLiteral("%1: %2").arg(Settings::name(Settings::Key::TcpDevice), vendor));
}

void TCPViewController::titleLabelClicked() {
    // The USB page steps back.
    Settings::shared().chooseInterface(Settings::Interface::Tcp);
    if (ipTextfield) {
        ipTextfield->setEditable(true);
        ipTextfield->setEnabled(true);
        ipTextfield->setStringValue(Settings::shared().string(Settings::Key::TcpIp).value_or(QString()));
    }
    paintActive();
}

void TCPViewController::ipTextfieldEnter() {
    if (!ipTextfield)
        return;
    const QString text = ipTextfield->stringValue();
    if (matchesIPv4Rule(text))
        Settings::shared().set(Settings::Key::TcpIp, text);
}

void TCPViewController::connectionTestClicked() {
    const QString vendor = Settings::shared().string(Settings::Key::TcpDevice).value_or(QString());
    if (vendor == Vendor::KIS)
        senders.sendKIS(cp949::encode(testPrintText).value(), QStringLiteral("print"), answerSink());
    else if (vendor == Vendor::KICC)
        senders.sendKICC(cp949::encode(testPrintText).value());
    else if (vendor == Vendor::SMARTRO)
        senders.sendSMARTRO(smartroTestPrintText.toLatin1(), answerSink());
}

AnswerSink TCPViewController::answerSink() {
    // An exchange can outlive the page (it goes with the application): one that answers
    // after the page has gone has nobody to tell.
    return [self = QPointer<TCPViewController>(this)](const TerminalAnswer &answer) {
        if (self)
            emit self->answerReady(answer);
    };
}

void TCPViewController::handleRequest(const TerminalRequest &request) {
    const QString requestType = request.requestType.value_or(QString());
    const QString &van = request.van;
    logLine(singleLine(QStringLiteral("TCP request: requesttype \"%1\", van \"%2\"").arg(requestType, van)));

    // Only the all-lower and all-upper spellings name a vendor.
    QString vendor;
    if (van == QLatin1String("kis") || van == QLatin1String("KIS"))
        vendor = Vendor::KIS;
    else if (van == QLatin1String("kicc") || van == QLatin1String("KICC"))
        vendor = Vendor::KICC;
    else if (van == QLatin1String("smartro") || van == QLatin1String("SMARTRO"))
        vendor = Vendor::SMARTRO;

    if (vendor.isEmpty())
        return;

    // The POS sends each vendor's request frame ready-made; only a slip print's text is
    // turned from UTF-8 into the terminal's code page 949.
    QByteArray bytes = request.data;
    if (requestType == QLatin1String("print")) {
        const std::optional<QString> text = strictUtf8(bytes);
        const std::optional<QByteArray> encoded = text ? cp949::encode(*text) : std::nullopt;
        if (!encoded) {
            logLine(QStringLiteral("%1 print not sent: the text is not UTF-8 or has characters code page 949 "
                                   "cannot represent")
                        .arg(vendor));
            return;
        }
        bytes = *encoded;
    }

    if (vendor == Vendor::KIS)
        senders.sendKIS(bytes, requestType, answerSink());
    else if (vendor == Vendor::KICC)
        senders.sendKICC(bytes);
    else
        senders.sendSMARTRO(bytes, answerSink());
}

void TCPViewController::otherInterfaceChosen() {
    paintInactive();
}

void TCPViewController::paintActive() {
    showTitleSelected(titleLabel);
}

void TCPViewController::paintInactive() {
    showTitleDeselected(titleLabel);
    if (ipTextfield) {
        ipTextfield->setEditable(false);
        ipTextfield->setEnabled(false);
    }
}
