#include "appdelegate.h"

#include "common/log.h"
#include "viewcontroller.h"

#include <QCoreApplication>
#include <QDir>

namespace {

constexpr int clickAfterMonitorCloseMs = 400;

} // namespace

QIcon AppDelegate::statusBarIcon() {
    ensureShellResources();
    QIcon icon;
    const QDir pictures(statusBarButtonImage);
    for (const QString &name : pictures.entryList({QStringLiteral("*.png")}, QDir::Files))
        icon.addFile(pictures.filePath(name));
    return icon;
}

AppDelegate::AppDelegate(Service &service) : service(service) {}

AppDelegate::~AppDelegate() = default;

void AppDelegate::applicationDidFinishLaunching() {
    statusItem.setIcon(statusBarIcon());
    statusItem.setToolTip(QStringLiteral("테라노카운터"));
    connect(&statusItem, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        // Every click toggles. Qt reports the second of two quick clicks as a double click
        // instead of a click: a quick click to close what was just opened must close it.
        if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick)
            togglePopover();
    });
    statusItem.show();

    ViewController *pages = ViewController::freshController(service);
    popover.setContentViewController(pages);
    connect(pages, &ViewController::closeRequested, this, &AppDelegate::closePopover);

    eventMonitor = std::make_unique<EventMonitor>([this] {
        if (popover.isShown()) {
            closePopover();
            sinceMonitorClosed.start();
        }
    });

    // Showing the popover once loads its pages; it is not left open.
    showPopover();
    closePopover();

    LoginItems(QCoreApplication::applicationFilePath()).addToLoginItems();
}

void AppDelegate::togglePopover() {
    if (popover.isShown()) {
        closePopover();
        return;
    }
    if (sinceMonitorClosed.isValid() && sinceMonitorClosed.elapsed() < clickAfterMonitorCloseMs)
        return;
    showPopover();
}

void AppDelegate::showPopover() {
    popover.showRelativeTo(statusItem.geometry());
    if (eventMonitor)
        eventMonitor->start();
}

void AppDelegate::closePopover() {
    popover.performClose();
    if (eventMonitor)
        eventMonitor->stop();
}

void AppDelegate::printQuote() {
    logLine(
        QStringLiteral("Never put off until tomorrow what you can do the day after tomorrow. — Mark Twain"));
}
