#include "shell/eventmonitor.h"
#include "wait.h"
#include "xvfb.h"

#include <QApplication>
#include <QProcess>
#include <QWidget>
#include <QWindow>
#include <QtTest>
#include <csignal>

// The popover's watch for a click in another application, on a real X server with a real
// window manager (the one place where when the focus arrives is up to another program).
// The server and the window manager are started before the application connects to them.

namespace {

QProcess *xserver = nullptr;
QProcess *windowManager = nullptr;
QProcess *other = nullptr;

bool tool(const QString &program, const QStringList &arguments, QByteArray *out = nullptr) {
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(5000) || process.exitCode() != 0)
        return false;
    if (out)
        *out = process.readAllStandardOutput();
    return true;
}

void stopAll() {
    for (QProcess *process : {other, windowManager, xserver}) {
        if (!process)
            continue;
        if (process->processId() > 0)
            ::kill(process->processId(), SIGCONT); // a test that failed may leave it stopped
        process->terminate();
        if (!process->waitForFinished(3000))
            process->kill();
        process->waitForFinished(3000);
        delete process;
    }
}

bool active() {
    return QGuiApplication::applicationState() == Qt::ApplicationActive;
}

} // namespace

class EventMonitorTest : public QObject {
    Q_OBJECT

    QWidget popover;
    int closedByMonitor = 0;
    EventMonitor monitor{[this] {
        popover.hide();
        ++closedByMonitor;
    }};

    // As the icon opens and closes the popover.
    void open() {
        popover.show();
        popover.raise();
        popover.activateWindow();
        monitor.start();
    }
    void close() {
        popover.hide();
        monitor.stop();
    }

    // The window manager has given the popover the focus (Qt's own view can lag behind).
    bool popoverHasTheFocus() {
        QByteArray id;
        return tool(QStringLiteral("xdotool"), {QStringLiteral("getactivewindow")}, &id) &&
               id.trimmed().toULongLong() == popover.winId();
    }

    // A click in the other application's window gives it the focus.
    bool focusOtherApplication() {
        QByteArray id;
        return tool(QStringLiteral("xdotool"),
                    {QStringLiteral("search"), QStringLiteral("--sync"), QStringLiteral("--onlyvisible"),
                     QStringLiteral("--name"), QStringLiteral("^terano-other$")},
                    &id) &&
               tool(QStringLiteral("xdotool"),
                    {QStringLiteral("windowactivate"), QString::fromLatin1(id.trimmed())});
    }

private slots:
    void initTestCase() {
        QVERIFY2(QGuiApplication::platformName() == QLatin1String("xcb"), "not on the X server");
        windowManager = new QProcess;
        windowManager->start(QStringLiteral("openbox"), {});
        QVERIFY2(waitUntil(
                     [] {
                         QByteArray out;
                         return tool(QStringLiteral("xprop"),
                                     {QStringLiteral("-root"), QStringLiteral("_NET_CLIENT_LIST")}, &out) &&
                                out.startsWith("_NET_CLIENT_LIST(WINDOW)");
                     },
                     10000),
                 "openbox did not start managing the display");
        other = new QProcess;
        other->start(QStringLiteral("xmessage"),
                     {QStringLiteral("-title"), QStringLiteral("terano-other"), QStringLiteral("-geometry"),
                      QStringLiteral("+500+400"), QStringLiteral("another application")});
        QByteArray id;
        QVERIFY2(tool(QStringLiteral("xdotool"),
                      {QStringLiteral("search"), QStringLiteral("--sync"), QStringLiteral("--onlyvisible"),
                       QStringLiteral("--name"), QStringLiteral("^terano-other$")},
                      &id),
                 "xmessage did not show its window");
        popover.setWindowTitle(QStringLiteral("popover"));
        popover.setGeometry(20, 20, 200, 120);
    }

    void aClickInAnotherApplicationClosesThePopover() {
        closedByMonitor = 0;
        open();
        QVERIFY2(waitUntil([this] { return popoverHasTheFocus() && active(); }, 5000),
                 "the popover did not get the focus");
        QVERIFY(focusOtherApplication());
        QVERIFY2(waitUntil([this] { return !popover.isVisible(); }, 5000), "the popover stayed open");
        QCOMPARE(closedByMonitor, 1);
    }

    void openedAgainWhileTheWindowManagerIsBusyItStaysOpen() {
        closedByMonitor = 0;
        open();
        QVERIFY2(waitUntil([this] { return popoverHasTheFocus() && active(); }, 5000),
                 "the popover did not get the focus");
        // A busy machine: the window manager gives the popover the focus only later.
        QVERIFY(::kill(windowManager->processId(), SIGSTOP) == 0);
        close();
        open();
        // Qt reports the close now, after the popover is open again.
        QVERIFY2(waitUntil([] { return !active(); }, 5000), "the close was never reported");
        QVERIFY2(popover.isVisible(), "the report of the close closed the popover opened after it");
        QVERIFY(::kill(windowManager->processId(), SIGCONT) == 0);
        QVERIFY2(waitUntil([this] { return popoverHasTheFocus() && active(); }, 5000),
                 "the popover did not get the focus");
        QVERIFY(popover.isVisible());
        QCOMPARE(closedByMonitor, 0);
        // and from then on, a click elsewhere closes it as ever.
        QVERIFY(focusOtherApplication());
        QVERIFY2(waitUntil([this] { return !popover.isVisible(); }, 5000), "the popover stayed open");
        QCOMPARE(closedByMonitor, 1);
    }

    void cleanupTestCase() { close(); }
};

int main(int argc, char *argv[]) {
    xserver = new QProcess;
    const QString display = startXvfb(*xserver, QStringLiteral("800x600"));
    if (display.isEmpty()) {
        qWarning("Xvfb did not open a display (bash scripts/install-deps.sh --test installs it)");
        stopAll();
        return 1;
    }
    qputenv("DISPLAY", display.toLocal8Bit());
    qputenv("QT_QPA_PLATFORM", "xcb");
    // Nothing here needs D-Bus. Without a session bus, libdbus's attempt to find one leaves
    // an allocation behind that LeakSanitizer reports at exit.
    qputenv("DBUS_SESSION_BUS_ADDRESS", "disabled:");
    int status = 0;
    {
        QApplication app(argc, argv);
        EventMonitorTest test;
        status = QTest::qExec(&test, argc, argv);
    }
    stopAll();
    return status;
}

#include "tst_eventmonitor.moc"
