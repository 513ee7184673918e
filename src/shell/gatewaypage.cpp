#include "gatewaypage.h"

#include "websocketviewcontroller.h"

#include <QLabel>
#include <QVBoxLayout>

GatewayPage::GatewayPage(QWidget *parent)
    : QWidget(parent), statusLabel(new QLabel(QStringLiteral("서비스 준비"), this)),
      connectionLabel(new QLabel(QStringLiteral("POS 연결 대기"), this)), statusOutlet(statusLabel),
      connectionOutlet(connectionLabel), viewController(std::make_unique<WebSocketViewController>()) {
    auto *layout = new QVBoxLayout(this);
    auto *title = new QLabel(
        QStringLiteral("POS 게이트웨이 (ws://127.0.0.1:%1/)").arg(WebSocketViewController::defaultPort),
        this);
    layout->addWidget(title);
    layout->addWidget(statusLabel);
    layout->addWidget(connectionLabel);

    viewController->websocketLabel = &statusOutlet;
    viewController->posConnectionLabel = &connectionOutlet;
    viewController->viewDidLoad();
}

GatewayPage::~GatewayPage() = default;
