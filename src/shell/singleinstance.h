#pragma once

#include <QLocalServer>
#include <QObject>
#include <functional>

// One service per user and settings file. A second launch (the desktop entry clicked while
// the service runs) must not fight the first over its ports: it asks the running one to
// show its pages and ends.
class SingleInstance : public QObject {
    Q_OBJECT
public:
    enum class Answer { NoneRunning, Shown, CannotShow };

    // A socket in $XDG_RUNTIME_DIR (or the temporary folder), named after the user and
    // the settings file. Worked out before the application makes up a runtime folder of
    // its own, so that every launch finds the same one.
    static QString socketPath();

    // Asks a running service to show its pages; NoneRunning when there is none.
    static Answer askRunningInstanceToShow(const QString &path, int timeoutMs = 3000);

    // Becomes the running service: answers later launches with `showPages`, which says
    // whether the pages could be shown. A socket left by a service that died is replaced.
    bool listen(const QString &path, std::function<bool()> showPages);

private:
    QLocalServer server;
    std::function<bool()> showPages;
};
