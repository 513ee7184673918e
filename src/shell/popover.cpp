#include "popover.h"

#include "viewcontroller.h"

#include <QGuiApplication>
#include <QScreen>
#include <QVBoxLayout>
#include <algorithm>

Popover::Popover(QWidget *parent)
    : QWidget(parent, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint) {
    setObjectName(QStringLiteral("popover"));
    setWindowTitle(QStringLiteral("테라노카운터"));
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(1, 1, 1, 1);
    setStyleSheet(QStringLiteral("#popover { border: 1px solid palette(mid); }"));
}

void Popover::setContentViewController(ViewController *controller) {
    content = controller;
    controller->setParent(this);
    layout()->addWidget(controller);
}

QPoint Popover::placement(const QRect &anchor, const QSize &size, const QRect &screen) {
    constexpr int gap = 4;
    int x = anchor.x() + anchor.width() / 2 - size.width() / 2;
    int y = anchor.bottom() + 1 + gap;
    if (y + size.height() > screen.bottom() + 1 && anchor.top() - gap - size.height() >= screen.top())
        y = anchor.top() - gap - size.height(); // a panel at the bottom of the screen
    x = std::clamp(x, screen.left(), std::max(screen.left(), screen.right() + 1 - size.width()));
    y = std::clamp(y, screen.top(), std::max(screen.top(), screen.bottom() + 1 - size.height()));
    return {x, y};
}

void Popover::showRelativeTo(const QRect &anchor) {
    if (content)
        content->loadViewIfNeeded();
    adjustSize();
    QScreen *screen = QGuiApplication::screenAt(anchor.center());
    if (!screen)
        screen = QGuiApplication::primaryScreen();
    const QRect area = screen ? screen->availableGeometry() : QRect(0, 0, 1024, 768);
    move(anchor.isValid() ? placement(anchor, sizeHint(), area)
                          : QPoint(area.right() - sizeHint().width(), area.top()));
    show();
    raise();
    activateWindow();
    if (content)
        content->viewDidAppear();
}

void Popover::performClose() {
    hide();
}
