#include "gatewaypage.h"

#include "browserpolicy.h"
#include "common/log.h"
#include "common/settings.h"
#include "gateway/originpolicy.h"
#include "lockdown.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

GatewayPage::GatewayPage(WebSocketViewController &controller, QWidget *parent)
    : QWidget(parent), statusLabel(new QLabel(QStringLiteral("서비스 준비"), this)),
      connectionLabel(new QLabel(QStringLiteral("POS 연결 대기"), this)), originLabel(new QLabel(this)),
      allowedLabel(new QLabel(this)), refusedLabel(new QLabel(this)),
      pinButton(new QPushButton(QStringLiteral("이 POS만 허용"), this)),
      clearButton(new QPushButton(QStringLiteral("허용 목록 비우기"), this)),
      protectionLabel(new QLabel(this)),
      protectButton(new QPushButton(QStringLiteral("보호 설정 켜기"), this)), policyLabel(new QLabel(this)),
      policyField(new QLineEdit(this)), copyButton(new QPushButton(QStringLiteral("복사"), this)),
      statusOutlet(statusLabel), connectionOutlet(connectionLabel), originOutlet(originLabel),
      allowedOutlet(allowedLabel), refusedOutlet(refusedLabel), pinOutlet(pinButton),
      clearOutlet(clearButton), viewController(controller) {
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
    auto *protections = new QHBoxLayout;
    protections->addWidget(protectionLabel, 1);
    protections->addWidget(protectButton);
    layout->addLayout(protections);
    layout->addWidget(policyLabel);
    auto *command = new QHBoxLayout;
    command->addWidget(policyField, 1);
    command->addWidget(copyButton);
    layout->addLayout(command);

    // Origins are text from outside: shown as text, never as rich text, and free to wrap.
    for (QLabel *label : {originLabel, allowedLabel, refusedLabel, protectionLabel, policyLabel}) {
        label->setTextFormat(Qt::PlainText);
        label->setWordWrap(true);
    }
    pinButton->setToolTip(QStringLiteral("연결된 POS 페이지의 Origin만 서비스에 연결할 수 있게 합니다"));
    clearButton->setToolTip(QStringLiteral("허용 목록을 지워 모든 페이지가 연결할 수 있게 합니다"));
    protectButton->setToolTip(
        QStringLiteral("teranocounter --lock-down 과 같습니다: 첫 POS의 Origin 고정, 단말기 응답은 "
                       "단말기 주소에서만, 주방 프린터는 이 컴퓨터의 네트워크만, 응답 보관, "
                       "주방 주문 재시도"));
    connect(protectButton, &QPushButton::clicked, this, &GatewayPage::lockDownClicked);
    policyField->setReadOnly(true); // still selectable, for a copy by hand
    policyField->setToolTip(QStringLiteral("Chromium, Chrome, Edge, Brave에 관리 정책 "
                                           "LocalNetworkAccessAllowedForUrls를 씁니다"));
    copyButton->setToolTip(QStringLiteral("명령을 클립보드에 복사합니다"));
    connect(copyButton, &QPushButton::clicked, this,
            [this] { QGuiApplication::clipboard()->setText(policyField->text()); });

    WebSocketViewController &c = viewController;
    c.websocketLabel = &statusOutlet;
    c.posConnectionLabel = &connectionOutlet;
    c.posOriginLabel = &originOutlet;
    c.allowedOriginsLabel = &allowedOutlet;
    c.refusedOriginsLabel = &refusedOutlet;
    c.pinOriginButton = &pinOutlet;
    c.clearOriginsButton = &clearOutlet;
    connect(pinButton, &QPushButton::clicked, this, [&c] { c.pinOriginClicked(); });
    connect(clearButton, &QPushButton::clicked, this, [&c] { c.clearOriginsClicked(); });
    connect(&c, &WebSocketViewController::originStateChanged, this, &GatewayPage::showBrowserPolicy);
    c.viewDidLoad();
    // A protection turned on or off while the popover is open (pinning the POS, clearing
    // the origins) shows at once.
    connect(&Settings::shared(), &Settings::changed, this, [this](Settings::Key key) {
        if (LockDown::covers(key))
            showProtections();
    });
    showProtections();
    showBrowserPolicy();
}

GatewayPage::~GatewayPage() {
    // The gateway goes on without the page: nothing may write to its widgets any more.
    WebSocketViewController &c = viewController;
    c.websocketLabel = nullptr;
    c.posConnectionLabel = nullptr;
    c.posOriginLabel = nullptr;
    c.allowedOriginsLabel = nullptr;
    c.refusedOriginsLabel = nullptr;
    c.pinOriginButton = nullptr;
    c.clearOriginsButton = nullptr;
}

void GatewayPage::appear() {
    viewController.viewDidAppear();
    showProtections(); // they may have been changed from a terminal
}

void GatewayPage::showProtections() {
    const QStringList off = LockDown::missing();
    protectionLabel->setText(off.isEmpty()
                                 ? QStringLiteral("보호 설정: 모두 켜짐")
                                 : QStringLiteral("보호 설정 꺼짐: %1").arg(off.join(QStringLiteral(", "))));
    protectButton->setEnabled(!off.isEmpty());
}

void GatewayPage::lockDownClicked() {
    QStringList written;
    for (const LockDown::Setting &setting : LockDown::apply())
        written << setting.text();
    logLine(singleLine(QStringLiteral("protections turned on from the popover: ") +
                       written.join(QStringLiteral(", "))));
    viewController.viewDidAppear();
    showProtections();
}

void GatewayPage::showBrowserPolicy() {
    // The POS shown first, then the origins allowed: the command replaces the browsers'
    // list, so it must keep every site the shop lets in.
    QStringList origins;
    const std::optional<QString> connected = viewController.posOrigin();
    if (connected && !connected->isEmpty()) // a client without Origin is no browser page
        origins << *connected;
    for (const QString &origin : OriginPolicy::allowedOrigins())
        if (!origins.contains(origin))
            origins << origin;
    QStringList needed;
    for (const QString &origin : origins)
        if (!BrowserPolicy::isLocalOrigin(origin) && !OriginPolicy::originProblem(origin))
            needed << origin;

    const bool local = needed.isEmpty() && !origins.isEmpty();
    policyLabel->setVisible(!origins.isEmpty());
    policyField->setVisible(!needed.isEmpty());
    copyButton->setVisible(!needed.isEmpty());
    if (local)
        policyLabel->setText(QStringLiteral("이 컴퓨터의 페이지라 브라우저 허용 설정이 필요 없습니다"));
    else if (!needed.isEmpty())
        policyLabel->setText(QStringLiteral("브라우저가 연결을 묻지 않게 하려면 터미널에서:"));
    else
        policyLabel->clear();
    policyField->setText(needed.isEmpty() ? QString() : BrowserPolicy::commandFor(needed));
    policyField->setCursorPosition(0);
}
