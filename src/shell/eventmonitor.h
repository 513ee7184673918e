#pragma once

#include <QMetaObject>
#include <functional>

// Watches for the user turning to another application while the popover is open: the
// moment this application stops being the active one (a click in another program's
// window moves the focus there), the handler runs. Clicks inside the popover or on the
// tray icon keep this application active and so do not reach it.
class EventMonitor {
public:
    using Handler = std::function<void()>;

    explicit EventMonitor(Handler handler) : handler(std::move(handler)) {}
    ~EventMonitor() { stop(); }
    EventMonitor(const EventMonitor &) = delete;
    EventMonitor &operator=(const EventMonitor &) = delete;

    // Starting again replaces the watch; the popover only starts it while it is closed.
    void start();
    void stop();
    bool isMonitoring() const { return static_cast<bool>(monitor); }

private:
    QMetaObject::Connection monitor;
    Handler handler;
};
