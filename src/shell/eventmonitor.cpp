#include "eventmonitor.h"

#include <QGuiApplication>

void EventMonitor::start() {
    stop();
    monitor = QObject::connect(qGuiApp, &QGuiApplication::applicationStateChanged, qGuiApp,
                               [this](Qt::ApplicationState state) {
                                   if (state != Qt::ApplicationActive && handler)
                                       handler();
                               });
}

void EventMonitor::stop() {
    if (monitor)
        QObject::disconnect(monitor);
    monitor = {};
}
