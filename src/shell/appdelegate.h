#pragma once

#include "eventmonitor.h"
#include "loginitems.h"
#include "popover.h"

#include <QElapsedTimer>
#include <QObject>
#include <QSystemTrayIcon>
#include <memory>

class Service;

// The service as the shop owner sees it: one icon in the system tray; a click opens the
// popover with the service's status and the terminal settings under it, a second click or
// a click in another application closes it. Launching shows the popover once and closes
// it at once, which loads its pages and so starts the gateway, the answer listeners and
// the serial port, then registers the service to start at login.
class AppDelegate : public QObject {
    Q_OBJECT
public:
    static inline const QString statusBarButtonImage = QStringLiteral(":/StatusBarButtonImage");
    static QIcon statusBarIcon();

    // The pages in the popover show `service`, which must outlive the delegate.
    explicit AppDelegate(Service &service);
    ~AppDelegate() override;

    void applicationDidFinishLaunching();
    void togglePopover();
    void showPopover();
    void closePopover();
    void printQuote();

    Popover popover;
    QSystemTrayIcon statusItem;
    std::unique_ptr<EventMonitor> eventMonitor;

private:
    // When a click on the icon is what took the focus from the popover, the monitor has
    // closed it already by the time the click arrives; that click must not open it again.
    QElapsedTimer sinceMonitorClosed;
    Service &service;
};
