#include "viewcontroller.h"

#include "common/fatal.h"
#include "gateway/websocketviewcontroller.h"
#include "gatewaypage.h"
#include "service/service.h"
#include "tcppage.h"
#include "terminal_serial/usbviewcontroller.h"
#include "terminal_tcp/tcpviewcontroller.h"
#include "usbpage.h"

#include <QFile>
#include <QFrame>
#include <QHBoxLayout>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>
#include <cstdio>
#include <cstdlib>

namespace {

const QString sceneIdentifier = QStringLiteral("ViewController");

QFrame *separator(QWidget *parent) {
    auto *line = new QFrame(parent);
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);
    return line;
}

} // namespace

// The shell's pictures and storyboard live in this static library; registering them here
// keeps the linker from dropping them.
static void registerShellResources() {
    Q_INIT_RESOURCE(shell);
}

void ensureShellResources() {
    static const bool registered = (registerShellResources(), true);
    Q_UNUSED(registered);
}

ViewController *ViewController::freshController(Service &service, const QString &storyboard) {
    ensureShellResources();
    QFile file(storyboard);
    const QJsonArray scenes = file.open(QIODevice::ReadOnly)
                                  ? QJsonDocument::fromJson(file.readAll()).object().value("scenes").toArray()
                                  : QJsonArray();
    for (const QJsonValue &scene : scenes) {
        const QJsonObject object = scene.toObject();
        if (object.value("identifier").toString() != sceneIdentifier)
            continue;
        if (object.value("class").toString() != QLatin1String("ViewController"))
            break;
        QStringList embeds;
        for (const QJsonValue &page : object.value("embeds").toArray())
            embeds << page.toString();
        return new ViewController(service, embeds);
    }
    fatalStop(QStringLiteral("Why cant i find ViewController? - Check Main.storyboard"));
}

ViewController::ViewController(Service &service, QStringList embeds)
    : service(service), embeds(std::move(embeds)) {
    setObjectName(sceneIdentifier);
}

void ViewController::loadViewIfNeeded() {
    if (loaded)
        return;
    loaded = true;
    auto *layout = new QVBoxLayout(this);
    for (const QString &page : embeds) {
        if (page == QLatin1String("WebSocketViewController")) {
            gateway = new GatewayPage(service.gateway(), this);
            layout->addWidget(gateway);
        } else if (page == QLatin1String("TCPViewController")) {
            tcp = new TcpPage(service.tcp(), this);
            layout->addWidget(separator(this));
            layout->addWidget(tcp);
            tcp->load();
        } else if (page == QLatin1String("USBViewController")) {
            usb = new UsbPage(service.usb(), this);
            layout->addWidget(separator(this));
            layout->addWidget(usb);
        }
    }
    connectPages();
    layout->addWidget(separator(this));
    auto *buttons = new QHBoxLayout;
    // Alt+C and Alt+Q reach the buttons from the keyboard as well.
    close = new QPushButton(QStringLiteral("닫기(&C)"), this);
    exit = new QPushButton(QStringLiteral("서비스 종료(&Q)"), this);
    buttons->addWidget(close);
    buttons->addStretch();
    buttons->addWidget(exit);
    layout->addLayout(buttons);
    connect(close, &QPushButton::clicked, this, &ViewController::closeClicked);
    connect(exit, &QPushButton::clicked, this, &ViewController::exitClicked);
    viewDidLoad();
}

void ViewController::connectPages() {
    connectTerminalChannels(gateway ? &gateway->controller() : nullptr, tcp ? &tcp->controller() : nullptr,
                            usb ? &usb->controller() : nullptr);
}

void ViewController::viewDidAppear() {
    if (gateway)
        gateway->appear();
    if (tcp)
        tcp->appear();
}

void ViewController::closeClicked() {
    emit closeRequested();
}

void ViewController::exitClicked() {
    if (!dialogOKCancel(exitQuestion, exitText))
        return;
    // Ends at once, as a confirmed exit always has: no clean-up, servers not stopped.
    std::fflush(stdout);
    std::_Exit(EXIT_SUCCESS);
}

bool ViewController::askWithAlert(const QString &question, const QString &text) {
    QMessageBox alert;
    alert.setIcon(QMessageBox::Warning);
    alert.setWindowTitle(question);
    alert.setText(question);
    alert.setInformativeText(text);
    // Both buttons share one role so that every platform keeps them in this order.
    QPushButton *confirm = alert.addButton(exitButton, QMessageBox::ActionRole);
    QPushButton *cancel = alert.addButton(cancelButton, QMessageBox::ActionRole);
    alert.setDefaultButton(confirm);
    alert.setEscapeButton(cancel);
    alert.exec();
    return alert.clickedButton() == confirm;
}
