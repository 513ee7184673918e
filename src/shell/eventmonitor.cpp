#include "eventmonitor.h"

#include <QGuiApplication>
#include <xcb/xcb.h>

void EventMonitor::start() {
    stop();
    // Only X11 reports the late deactivation; elsewhere the watch counts from the start.
    focusSeen = QGuiApplication::platformName() != QLatin1String("xcb");
    if (!focusSeen) {
        qGuiApp->installNativeEventFilter(this);
        filtering = true;
    }
    monitor = QObject::connect(qGuiApp, &QGuiApplication::applicationStateChanged, qGuiApp,
                               [this](Qt::ApplicationState state) {
                                   if (state != Qt::ApplicationActive && focusSeen && handler)
                                       handler();
                               });
}

void EventMonitor::stop() {
    if (monitor)
        QObject::disconnect(monitor);
    monitor = {};
    if (filtering)
        qGuiApp->removeNativeEventFilter(this);
    filtering = false;
}

bool EventMonitor::nativeEventFilter(const QByteArray &eventType, void *message, qintptr *) {
    if (eventType != "xcb_generic_event_t")
        return false;
    const auto *event = static_cast<const xcb_generic_event_t *>(message);
    if ((event->response_type & ~0x80) != XCB_FOCUS_IN)
        return false;
    // A focus event sent only because the pointer is over our window, while the keyboard
    // focus is elsewhere, is not ours to count (Qt ignores it the same way).
    const auto *focusIn = static_cast<const xcb_focus_in_event_t *>(message);
    if (focusIn->detail != XCB_NOTIFY_DETAIL_POINTER)
        focusSeen = true;
    return false; // Qt still handles every event
}
