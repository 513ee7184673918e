#include "gatewaypage.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

GatewayPage::GatewayPage(QWidget *parent, quint16 port)
    : QWidget(parent), statusLabel(new QLabel(QStringLiteral("서비스 준비"), this)),
      connectionLabel(new QLabel(QStringLiteral("POS 연결 대기"), this)), originLabel(new QLabel(this)), allowedLabel(new QLabel(this)),
      refusedLabel(new QLabel(this)), pinButton(new QPushButton(QStringLiteral("이 POS만 허용"), this)),
      clearButton(new QPushButton(QStringLiteral("허용 목록 비우기"), this)), statusOutlet(statusLabel),
      connectionOutlet(connectionLabel), originOutlet(originLabel), allowedOutlet(allowedLabel), refusedOutlet(refusedLabel),
      pinOutlet(pinButton), clearOutlet(clearButton),
      viewController(std::make_unique<WebSocketViewController>(port)) {
    auto *layout = new QVBoxLayout(this);
    auto *title = new QLabel(
        QStringLiteral("POS 게이트웨이 (ws://127.0.0.1:%1/)").arg(WebSocketViewController::defaultPort),
        this);
    layout->addWidget(title);
    layout->addWidget(statusLabel);
    layout->addWidget(connectionLabel);
    layout->addWidget(originLabel);
    layout->addWidget(allowedLabel);
    auto *buttons = new QHBoxLayout;
    buttons->addWidget(pinButton);
    buttons->addWidget(clearButton);
    buttons->addStretch();
    layout->addLayout(buttons);
    layout->addWidget(refusedLabel);

    // Origins are text from outside: shown as text, never as rich text, and free to wrap.
    for (QLabel *label : {originLabel, allowedLabel, refusedLabel}) {
        label->setTextFormat(Qt::PlainText);
        label->setWordWrap(true);
    }
    pinButton->setToolTip(QStringLiteral("연결된 POS 페이지의 Origin만 서비스에 연결할 수 있게 합니다"));
    clearButton->setToolTip(QStringLiteral("허용 목록을 지워 모든 페이지가 연결할 수 있게 합니다"));

    WebSocketViewController &c = *viewController;
    c.websocketLabel = &statusOutlet;
    c.posConnectionLabel = &connectionOutlet;
    c.posOriginLabel = &originOutlet;
    c.allowedOriginsLabel = &allowedOutlet;
    c.refusedOriginsLabel = &refusedOutlet;
    c.pinOriginButton = &pinOutlet;
    c.clearOriginsButton = &clearOutlet;
    connect(pinButton, &QPushButton::clicked, this, [&c] { c.pinOriginClicked(); });
    connect(clearButton, &QPushButton::clicked, this, [&c] { c.clearOriginsClicked(); });
    c.viewDidLoad();
}

GatewayPage::~GatewayPage() = default;

void GatewayPage::appear() {
    viewController->viewDidAppear();
}
