#pragma once

#include <QAbstractNativeEventFilter>
#include <QMetaObject>
#include <functional>

// Watches for the user turning to another application while the popover is open: the
// moment this application stops being the active one (a click in another program's
// window moves the focus there), the handler runs. Clicks inside the popover or on the
// tray icon keep this application active and so do not reach it.
//
// On X11 the watch holds off until one of our windows has had the keyboard focus since it
// started. Qt reports the application inactive only about 100 ms after its focused window
// lost the focus, so a popover closed and opened again within that moment (a second click
// on the icon) gets the report of the close after it is open again; when the window manager
// is slow to give the new popover the focus, that late report would close it at once.
class EventMonitor : public QAbstractNativeEventFilter {
public:
    using Handler = std::function<void()>;

    explicit EventMonitor(Handler handler) : handler(std::move(handler)) {}
    ~EventMonitor() override { stop(); }
    EventMonitor(const EventMonitor &) = delete;
    EventMonitor &operator=(const EventMonitor &) = delete;

    // Starting again replaces the watch; the popover only starts it while it is closed.
    void start();
    void stop();
    bool isMonitoring() const { return static_cast<bool>(monitor); }

    bool nativeEventFilter(const QByteArray &eventType, void *message, qintptr *result) override;

private:
    QMetaObject::Connection monitor;
    Handler handler;
    bool focusSeen = false; // since start(): whether leaving the application counts yet
    bool filtering = false;
};
