#include "tcppage.h"

#include "terminal_tcp/tcpviewcontroller.h"

#include <QComboBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

TcpPage::TcpPage(TCPViewController &controller, QWidget *parent)
    : QWidget(parent), title(new ClickableLabel(QStringLiteral("TCP"), this)), popup(new QComboBox(this)),
      ip(new QLineEdit(this)), test(new QPushButton(QStringLiteral("연결 테스트"), this)),
      kiccStatus(new QLabel(QStringLiteral("시작 전"), this)),
      kisStatus(new QLabel(QStringLiteral("요청 연결로 응답"), this)),
      smartroStatus(new QLabel(QStringLiteral("시작 전"), this)), titleOutlet(title), popupOutlet(popup),
      ipOutlet(ip), testOutlet(test), kiccOutlet(kiccStatus), kisOutlet(kisStatus),
      smartroOutlet(smartroStatus), viewController(controller) {
    title->setAlignment(Qt::AlignCenter);
    title->setMargin(4);
    title->setCursor(Qt::PointingHandCursor);
    title->setToolTip(QStringLiteral("눌러서 TCP 단말기를 사용"));
    popup->addItems(TCPViewController::vendors);
    ip->setPlaceholderText(QStringLiteral("192.168.0.10"));
    ip->setToolTip(QStringLiteral("단말기 IP 주소를 입력하고 Enter"));

    auto *layout = new QVBoxLayout(this);
    layout->addWidget(title);
    auto *form = new QFormLayout;
    form->addRow(QStringLiteral("단말기"), popup);
    form->addRow(QStringLiteral("IP 주소"), ip);
    form->addRow(QStringLiteral("KICC 응답 (13189)"), kiccStatus);
    form->addRow(QStringLiteral("KIS 응답"), kisStatus);
    form->addRow(QStringLiteral("SMARTRO 응답 (5501)"), smartroStatus);
    layout->addLayout(form);
    layout->addWidget(test);

    TCPViewController &c = viewController;
    c.titleLabel = &titleOutlet;
    c.tcpDevicePopupButton = &popupOutlet;
    c.ipTextfield = &ipOutlet;
    c.connectionTestButton = &testOutlet;
    c.kiccLabel = &kiccOutlet;
    c.kisLabel = &kisOutlet;
    c.smartroLabel = &smartroOutlet;

    // Until the page appears as the active interface, its title has the other one's look.
    showTitleDeselected(&titleOutlet);

    connect(title, &ClickableLabel::clicked, this, [&c] { c.titleLabelClicked(); });
    connect(popup, &QComboBox::activated, this, [&c] { c.deviceTypeChanged(); });
    connect(ip, &QLineEdit::returnPressed, this, [&c] { c.ipTextfieldEnter(); });
    connect(test, &QPushButton::clicked, this, [&c] { c.connectionTestClicked(); });
}

TcpPage::~TcpPage() {
    // The channel goes on without the page: nothing may write to its widgets any more.
    TCPViewController &c = viewController;
    c.titleLabel = nullptr;
    c.tcpDevicePopupButton = nullptr;
    c.ipTextfield = nullptr;
    c.connectionTestButton = nullptr;
    c.kiccLabel = nullptr;
    c.kisLabel = nullptr;
    c.smartroLabel = nullptr;
}

void TcpPage::load() {
    viewController.viewDidLoad();
}

void TcpPage::appear() {
    viewController.viewDidAppear();
}
