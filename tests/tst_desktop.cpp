// The service on a desktop as a shop owner has it: an X server, a window manager, a panel
// with a system tray and another program open beside it. Everything is done from outside,
// with the pointer and the keyboard, and checked with what the X server shows.
#include "posclient.h"
#include "serviceprocess.h"
#include "wait.h"
#include "xvfb.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QRect>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString pagesTitle = QStringLiteral("테라노카운터");
const QString alertTitle = QStringLiteral("테라노카운터 서비스 종료");
const QString addLoginItem = QStringLiteral("Add login item");
const QString noTray = QStringLiteral("no system tray: running without a tray icon, as with --headless");
const QString alreadyRunning = QStringLiteral("Terano Counter is already running: its settings are shown");

// How long the desktop gets to show what a click or a key did.
constexpr int uiTimeoutMs = 5000;
// A check that something stays as it is lasts this long: more than the 400 ms after a
// close by a click elsewhere in which the service ignores a click on its icon.
constexpr int settleMs = 700;

using WindowId = qulonglong;

struct Window {
    WindowId id = 0;
    bool viewable = false;
    QRect geometry; // on the screen
    bool exists() const { return id != 0; }
};

void stopProcess(QProcess &process) {
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate();
    if (!process.waitForFinished(3000)) {
        process.kill();
        process.waitForFinished(3000);
    }
}

// An X server of its own with a window manager, a tray panel and another application,
// for one test run; all of it ends with the object.
class Desktop {
public:
    ~Desktop() { stopAll(); }

    QString display() const { return displayName; }
    QString error() const { return lastError; }

    bool startServer() {
        displayName = startXvfb(xserver, QStringLiteral("1280x800"));
        if (displayName.isEmpty() && xserver.error() == QProcess::FailedToStart)
            return fail(QStringLiteral("Xvfb did not start: ") + xserver.errorString());
        if (displayName.isEmpty())
            return fail(QStringLiteral("Xvfb did not open a display: ") +
                        QString::fromLocal8Bit(xserver.readAllStandardError()).simplified());
        QByteArray size;
        if (!run(QStringLiteral("xdotool"), {QStringLiteral("getdisplaygeometry")}, &size))
            return fail(QStringLiteral("the display %1 cannot be reached with xdotool").arg(displayName));
        const QList<QByteArray> sides = size.trimmed().split(' ');
        screenArea = QRect(0, 0, sides.value(0).toInt(), sides.value(1).toInt());
        return true;
    }

    bool startWindowManager() {
        startOnDisplay(windowManager, QStringLiteral("openbox"), {});
        // The list of managed windows is the last thing openbox puts on the root window as it
        // starts (its name comes much earlier). A panel mapped before that may never be shown.
        const bool managing = waitUntil(
            [this] {
                QByteArray out;
                return windowManager.state() == QProcess::Running &&
                       run(QStringLiteral("xprop"),
                           {QStringLiteral("-root"), QStringLiteral("_NET_CLIENT_LIST")}, &out) &&
                       out.startsWith("_NET_CLIENT_LIST(WINDOW)");
            },
            10000);
        return managing || fail(QStringLiteral("openbox did not start managing the display"), windowManager);
    }

    bool startTray() {
        startOnDisplay(tray, QStringLiteral("trayer"),
                       {QStringLiteral("--edge"), QStringLiteral("top"), QStringLiteral("--align"),
                        QStringLiteral("right"), QStringLiteral("--widthtype"), QStringLiteral("pixel"),
                        QStringLiteral("--width"), QStringLiteral("120"), QStringLiteral("--height"),
                        QStringLiteral("28"), QStringLiteral("--transparent"), QStringLiteral("false"),
                        QStringLiteral("--tint"), QStringLiteral("0x303030")});
        const bool shown = waitUntil(
            [this] {
                return tray.state() == QProcess::Running &&
                       !search({QStringLiteral("--onlyvisible"), QStringLiteral("--class"),
                                QStringLiteral("^trayer$")})
                            .isEmpty();
            },
            10000);
        return shown || fail(QStringLiteral("trayer did not show its panel"), tray);
    }

    bool stopTray() {
        stopProcess(tray);
        // The tray is gone for others once the server has dropped the panel's windows.
        return waitUntil(
            [this] {
                return search({QStringLiteral("--class"), QStringLiteral("^trayer$")}).isEmpty();
            },
            uiTimeoutMs);
    }

    // Another program the shop owner has open: a plain message window, which takes the
    // focus when clicked.
    bool startOtherApplication() {
        startOnDisplay(other, QStringLiteral("xmessage"),
                       {QStringLiteral("-name"), QStringLiteral("terano-other"), QStringLiteral("-buttons"),
                        QString(), QStringLiteral("another application")});
        const bool shown = waitUntil([this] { return otherApplication().viewable; }, 10000);
        return shown || fail(QStringLiteral("xmessage did not show its window"), other);
    }

    Window otherApplication() {
        const QList<WindowId> ids = search({QStringLiteral("--onlyvisible"), QStringLiteral("--classname"),
                                            QStringLiteral("^terano-other$")});
        return ids.isEmpty() ? Window{} : window(ids.first());
    }

    void stopAll() {
        stopProcess(other);
        stopProcess(tray);
        stopProcess(windowManager);
        stopProcess(xserver);
    }

    QRect screen() const { return screenArea; }

    // Runs an X client to its end on this display; whether it ended with status 0.
    bool run(const QString &program, const QStringList &arguments, QByteArray *out = nullptr) const {
        QProcess tool;
        tool.setProcessEnvironment(environment());
        tool.start(program, arguments);
        if (!tool.waitForFinished(10000)) {
            tool.kill();
            tool.waitForFinished(3000);
            return false;
        }
        if (out)
            *out = tool.readAllStandardOutput();
        return tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
    }

    QList<WindowId> search(const QStringList &criteria) const {
        QByteArray out;
        run(QStringLiteral("xdotool"), QStringList{QStringLiteral("search")} + criteria, &out);
        QList<WindowId> ids;
        for (const QByteArray &line : out.split('\n'))
            if (const WindowId id = line.trimmed().toULongLong())
                ids << id;
        return ids;
    }

    // What xwininfo knows of a window: nothing (id 0) when it does not exist.
    Window window(WindowId id) const {
        QByteArray out;
        if (!run(QStringLiteral("xwininfo"), {QStringLiteral("-id"), QString::number(id)}, &out))
            return {};
        const auto number = [&out](const char *label) {
            const QRegularExpression pattern(QString::fromLatin1(label) + QStringLiteral(":\\s+(-?\\d+)"));
            return pattern.match(QString::fromUtf8(out)).captured(1).toInt();
        };
        Window found;
        found.id = id;
        found.viewable = out.contains("Map State: IsViewable");
        found.geometry = QRect(number("Absolute upper-left X"), number("Absolute upper-left Y"),
                               number("Width"), number("Height"));
        return found;
    }

    WindowId activeWindow() const {
        QByteArray out;
        run(QStringLiteral("xdotool"), {QStringLiteral("getactivewindow")}, &out);
        return out.trimmed().toULongLong();
    }

    // The service's icon: a window of the service's class that the tray panel has taken in.
    // The one on show when there are several (an icon window the panel let go of can linger
    // unmapped in its tree), and the first otherwise.
    Window trayIcon() const {
        static const QRegularExpression iconLine(
            QStringLiteral(R"(^\s*(0x[0-9a-fA-F]+) .*\("teranocounter" "teranocounter"\))"),
            QRegularExpression::MultilineOption);
        Window first;
        for (const WindowId panel : search({QStringLiteral("--class"), QStringLiteral("^trayer$")})) {
            QByteArray tree;
            if (!run(QStringLiteral("xwininfo"),
                     {QStringLiteral("-tree"), QStringLiteral("-id"), QString::number(panel)}, &tree))
                continue;
            QRegularExpressionMatchIterator matches = iconLine.globalMatch(QString::fromUtf8(tree));
            while (matches.hasNext()) {
                const Window icon = window(matches.next().captured(1).toULongLong(nullptr, 16));
                if (icon.viewable)
                    return icon;
                if (!first.exists())
                    first = icon;
            }
        }
        return first;
    }

    // The tray panel's windows as xwininfo lists them, for a failure's message.
    QString trayTree() const {
        QString all;
        for (const WindowId panel : search({QStringLiteral("--class"), QStringLiteral("^trayer$")})) {
            QByteArray tree;
            run(QStringLiteral("xwininfo"),
                {QStringLiteral("-tree"), QStringLiteral("-id"), QString::number(panel)}, &tree);
            all += QString::fromUtf8(tree);
        }
        return all;
    }

    bool click(const QPoint &point) const {
        return run(QStringLiteral("xdotool"),
                   {QStringLiteral("mousemove"), QString::number(point.x()), QString::number(point.y()),
                    QStringLiteral("click"), QStringLiteral("1")});
    }

    // Keys go where the keyboard focus is, as when a person types.
    bool key(const QString &keys) const {
        return run(QStringLiteral("xdotool"), {QStringLiteral("key"), keys});
    }

    bool screenshot(const QString &path) const {
        return run(QStringLiteral("import"), {QStringLiteral("-window"), QStringLiteral("root"), path});
    }

private:
    QProcessEnvironment environment() const {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("DISPLAY"), displayName);
        env.remove(QStringLiteral("WAYLAND_DISPLAY"));
        return env;
    }

    void startOnDisplay(QProcess &process, const QString &program, const QStringList &arguments) {
        process.setProcessEnvironment(environment());
        // Kept aside: only a failure to start shows what they said.
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.setStandardOutputFile(logs.filePath(program + QStringLiteral(".log")));
        process.start(program, arguments);
    }

    bool fail(const QString &why) {
        lastError = why;
        return false;
    }

    // Why a program started with startOnDisplay() did not do its part: its state and the
    // last thing it said.
    bool fail(const QString &why, const QProcess &process) {
        QFile log(logs.filePath(process.program() + QStringLiteral(".log")));
        const QList<QByteArray> said =
            log.open(QIODevice::ReadOnly) ? log.readAll().trimmed().split('\n') : QList<QByteArray>{};
        const QString state = process.state() == QProcess::Running
                                  ? QStringLiteral("still running")
                                  : QStringLiteral("ended with status %1").arg(process.exitCode());
        const QString server = xserver.state() == QProcess::Running
                                   ? QStringLiteral("Xvfb running")
                                   : QStringLiteral("Xvfb ended: ") +
                                         QString::fromLocal8Bit(xserver.readAllStandardError()).simplified();
        return fail(QStringLiteral("%1 (on %2, %3; %4 %5; its last words: %6)")
                        .arg(why, displayName, server, process.program(), state,
                             QString::fromLocal8Bit(said.value(said.size() - 1))));
    }

    QTemporaryDir logs;
    QProcess xserver;
    QProcess windowManager;
    QProcess tray;
    QProcess other;
    QString displayName;
    QString lastError;
    QRect screenArea;
};

// Whether the screenshot shows, where `area` is, a light surface with dark writing on it,
// as the pages are drawn, rather than an empty or black rectangle.
QString darkOnLightProblem(const QString &screenshot, const QRect &area) {
    QImage image;
    if (!image.load(screenshot))
        return QStringLiteral("the screenshot cannot be read");
    const QImage part = image.copy(area.intersected(image.rect())).convertToFormat(QImage::Format_RGB32);
    if (part.isNull())
        return QStringLiteral("the popover is not on the screenshot");
    qint64 light = 0;
    qint64 dark = 0;
    for (int y = 0; y < part.height(); ++y)
        for (int x = 0; x < part.width(); ++x) {
            const int gray = qGray(part.pixel(x, y));
            light += gray >= 200;
            dark += gray <= 90;
        }
    const qint64 all = qint64(part.width()) * part.height();
    if (light * 2 < all)
        return QStringLiteral("less than half of the popover is light (%1 of %2 pixels)").arg(light).arg(all);
    if (dark * 500 < all)
        return QStringLiteral("almost nothing dark is written on the popover (%1 of %2 pixels)")
            .arg(dark)
            .arg(all);
    return {};
}

QString describe(const Window &window) {
    if (!window.exists())
        return QStringLiteral("no window");
    const QRect &g = window.geometry;
    return QStringLiteral("window %1 at %2,%3 size %4x%5%6")
        .arg(window.id)
        .arg(g.x())
        .arg(g.y())
        .arg(g.width())
        .arg(g.height())
        .arg(window.viewable ? QStringLiteral(", viewable") : QStringLiteral(", not viewable"));
}

} // namespace

class DesktopTest : public QObject {
    Q_OBJECT

    Desktop desktop;
    QTemporaryDir sessionConfig; // the session's XDG_CONFIG_DIRS, with a login item of its own
    ServiceProcess service;      // declared after the desktop: it ends before the display does
    WindowId popover = 0;

    Window popoverWindow() const { return desktop.window(popover); }

    QString serviceOutput() {
        return QStringLiteral("stdout: [%1] stderr: [%2]")
            .arg(service.stdoutLines().join(QStringLiteral(" | ")),
                 service.stderrLines().join(QStringLiteral(" | ")));
    }

    QList<WindowId> serviceWindowsNamed(const QString &title, bool onlyVisible) const {
        QStringList criteria{QStringLiteral("--all"), QStringLiteral("--pid"), QString::number(service.pid()),
                             // xdotool takes a regular expression; the titles have no special characters.
                             QStringLiteral("--name"), u'^' + title + u'$'};
        if (onlyVisible)
            criteria.prepend(QStringLiteral("--onlyvisible"));
        return desktop.search(criteria);
    }

    bool waitForActive(WindowId id) {
        return waitUntil([&] { return desktop.activeWindow() == id; }, uiTimeoutMs);
    }

    // A click on the tray icon, as the shop owner opens or closes the popover. On a busy
    // machine the panel and xwininfo can take a while to show it: a click waits for it.
    bool clickIcon() {
        Window icon;
        if (!waitUntil(
                [&] {
                    icon = desktop.trayIcon();
                    return icon.viewable;
                },
                uiTimeoutMs)) {
            qWarning("no tray icon on show; the panel's windows:\n%s", qPrintable(desktop.trayTree()));
            return false;
        }
        return desktop.click(icon.geometry.center());
    }

    // Opens the popover from the icon and waits until it has the keyboard focus.
    void openPopover() {
        QVERIFY2(!popoverWindow().viewable, "the popover is open already");
        QVERIFY2(clickIcon(), "the tray icon cannot be clicked");
        QVERIFY2(waitUntil([this] { return popoverWindow().viewable; }, uiTimeoutMs),
                 "a click on the icon did not open the popover");
        QVERIFY2(waitForActive(popover),
                 qPrintable(QStringLiteral("the open popover does not have the focus (%1 has)")
                                .arg(desktop.activeWindow())));
    }

    qsizetype loginItemLines() { return service.stdoutLines().count(addLoginItem); }

private slots:
    void initTestCase() {
        for (const char *tool :
             {"Xvfb", "openbox", "trayer", "xdotool", "xwininfo", "xprop", "xmessage", "import"})
            if (QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty())
                QFAIL(qPrintable(
                    QStringLiteral("%1 is missing: bash scripts/install-deps.sh --test installs it")
                        .arg(QString::fromLatin1(tool))));
        QVERIFY2(!ServiceProcess::gatewayAcceptsConnections(), "port 49999 is already in use");
        QVERIFY2(desktop.startServer(), qPrintable(desktop.error()));
        QVERIFY2(desktop.startWindowManager(), qPrintable(desktop.error()));
        QVERIFY2(desktop.startTray(), qPrintable(desktop.error()));
        QVERIFY2(desktop.startOtherApplication(), qPrintable(desktop.error()));

        // A session always has some login item; without any the service refuses to start.
        QVERIFY(sessionConfig.isValid());
        QVERIFY(QDir(sessionConfig.path()).mkpath(QStringLiteral("autostart")));
        QFile entry(sessionConfig.filePath(QStringLiteral("autostart/shop-clock.desktop")));
        QVERIFY(entry.open(QIODevice::WriteOnly));
        entry.write("[Desktop Entry]\nType=Application\nName=Shop clock\nExec=/bin/true\n");
        entry.close();

        service.extraEnvironment.insert(QStringLiteral("DISPLAY"), desktop.display());
        service.extraEnvironment.insert(QStringLiteral("XDG_CONFIG_DIRS"), sessionConfig.path());
    }

    void cleanupTestCase() {
        service.killHard();
        desktop.stopAll();
    }

    void launchPutsTheIconInTheTrayAndLeavesThePopoverClosed() {
        QVERIFY2(service.startOnScreen(),
                 qPrintable(QStringLiteral("the gateway does not accept connections; ") + serviceOutput()));
        QVERIFY2(service.waitForStdoutLine(addLoginItem, 10000), qPrintable(serviceOutput()));
        QCOMPARE(loginItemLines(), 1);
        QVERIFY2(!service.stdoutLines().contains(noTray), qPrintable(serviceOutput()));

        // The line comes just before the entry is written.
        const QString entryPath = service.configHome() + QStringLiteral("/autostart/teranocounter.desktop");
        QVERIFY2(waitUntil([&] { return QFileInfo(entryPath).size() > 0; }, uiTimeoutMs),
                 qPrintable(entryPath));
        QFile entry(entryPath);
        QVERIFY(entry.open(QIODevice::ReadOnly));
        const QString text = QString::fromUtf8(entry.readAll());
        QVERIFY2(text.contains(
                     QStringLiteral("Exec=\"%1\"").arg(QFileInfo(TERANOCOUNTER_BIN).canonicalFilePath())),
                 qPrintable(text));

        QVERIFY2(waitUntil([this] { return desktop.trayIcon().viewable; }, 10000),
                 "no icon appeared in the tray");

        // The popover was opened and closed once to load the pages: it exists, unmapped.
        QList<WindowId> found;
        QVERIFY2(waitUntil(
                     [&] {
                         found = serviceWindowsNamed(pagesTitle, false);
                         return found.size() == 1 && !desktop.window(found.first()).viewable;
                     },
                     uiTimeoutMs),
                 qPrintable(QStringLiteral("%1 window(s) named %2; the first: %3")
                                .arg(found.size())
                                .arg(pagesTitle, describe(desktop.window(found.value(0))))));
        popover = found.first();
        keepRunningFor(settleMs);
        QVERIFY2(popoverWindow().exists() && !popoverWindow().viewable,
                 qPrintable(describe(popoverWindow())));
    }

    void clickOnTheIconOpensThePopoverBelowIt() {
        QVERIFY2(service.isRunning(), "the service from the launch is not running");
        const Window icon = desktop.trayIcon();
        QVERIFY2(icon.viewable, qPrintable(describe(icon)));
        openPopover();
        if (QTest::currentTestFailed())
            return;

        const QRect shown = popoverWindow().geometry;
        const QRect screen = desktop.screen();
        const QString where =
            QStringLiteral("icon: %1; popover: %2").arg(describe(icon), describe(popoverWindow()));
        QVERIFY2(shown.top() > icon.geometry.bottom(), qPrintable(where));
        const bool overlaps = shown.left() <= icon.geometry.right() && shown.right() >= icon.geometry.left();
        const bool atAnEdge = shown.left() == screen.left() || shown.right() == screen.right();
        QVERIFY2(overlaps || atAnEdge, qPrintable(where));
        QVERIFY2(screen.contains(shown), qPrintable(where));

        // The picture, for a person to look at; it must show the pages drawn.
        const QString artifacts = QStringLiteral(TEST_ARTIFACTS_DIR);
        QVERIFY(QDir().mkpath(artifacts));
        const QString picture = artifacts + QStringLiteral("/popover.png");
        QFile::remove(picture);
        QString problem;
        waitUntil(
            [&] {
                problem = desktop.screenshot(picture) ? darkOnLightProblem(picture, shown)
                                                      : QStringLiteral("import could not take a screenshot");
                return problem.isEmpty();
            },
            uiTimeoutMs);
        QVERIFY2(QFileInfo(picture).size() > 0, qPrintable(picture));
        QVERIFY2(problem.isEmpty(), qPrintable(problem + QStringLiteral(" (") + picture + u')'));
    }

    void clickInAnotherApplicationClosesIt() {
        QVERIFY2(popoverWindow().viewable, "the popover is not open");
        const Window other = desktop.otherApplication();
        QVERIFY2(other.viewable, "the other application's window is not shown");
        const QPoint inside = other.geometry.center();
        QVERIFY2(
            !popoverWindow().geometry.contains(inside) && !desktop.trayIcon().geometry.contains(inside),
            qPrintable(QStringLiteral("the other application lies under the popover: ") + describe(other)));
        QVERIFY(desktop.click(inside));
        QVERIFY2(waitUntil([this] { return !popoverWindow().viewable; }, uiTimeoutMs),
                 qPrintable(QStringLiteral(
                                "the popover stayed open; the focus is on %1, the other application is %2")
                                .arg(desktop.activeWindow())
                                .arg(other.id)));
        keepRunningFor(settleMs);
        QVERIFY2(!popoverWindow().viewable, "the popover opened again by itself");

        // The icon toggles it.
        openPopover();
        if (QTest::currentTestFailed())
            return;
        QVERIFY(clickIcon());
        QVERIFY2(waitUntil([this] { return !popoverWindow().viewable; }, uiTimeoutMs),
                 "a second click on the icon did not close the popover");
        keepRunningFor(settleMs);
        QVERIFY2(!popoverWindow().viewable, "the click that closed the popover opened it again");
    }

    void closeButtonClosesItAndTheServiceGoesOn() {
        openPopover();
        if (QTest::currentTestFailed())
            return;
        QVERIFY(desktop.key(QStringLiteral("alt+c")));
        QVERIFY2(waitUntil([this] { return !popoverWindow().viewable; }, uiTimeoutMs),
                 "Alt+C did not close the popover");
        QVERIFY(service.isRunning());
        QVERIFY(ServiceProcess::gatewayAcceptsConnections());
    }

    void exitThenCancelKeepsTheServiceRunning() {
        openPopover();
        if (QTest::currentTestFailed())
            return;
        QVERIFY(desktop.key(QStringLiteral("alt+q")));
        QList<WindowId> alert;
        QVERIFY2(waitUntil(
                     [&] {
                         alert = serviceWindowsNamed(alertTitle, true);
                         return !alert.isEmpty();
                     },
                     uiTimeoutMs),
                 "Alt+Q did not bring up the question");
        QVERIFY2(waitForActive(alert.first()), "the question does not have the focus");
        QVERIFY(desktop.key(QStringLiteral("Escape")));
        QVERIFY2(waitUntil([this] { return serviceWindowsNamed(alertTitle, true).isEmpty(); }, uiTimeoutMs),
                 "Escape did not take the question away");
        QVERIFY2(service.isRunning(), qPrintable(serviceOutput()));
        PosClient pos;
        QVERIFY2(pos.open(ServiceProcess::gatewayPort), "the gateway no longer accepts a POS page");
        // Back where the shop owner was: the popover, with the focus.
        QVERIFY2(popoverWindow().viewable, "the popover closed with the question");
        QVERIFY2(waitForActive(popover), "the popover did not get the focus back");
    }

    void exitThenConfirmEndsTheService() {
        QVERIFY2(popoverWindow().viewable, "the popover is not open");
        QVERIFY(desktop.key(QStringLiteral("alt+q")));
        QList<WindowId> alert;
        QVERIFY2(waitUntil(
                     [&] {
                         alert = serviceWindowsNamed(alertTitle, true);
                         return !alert.isEmpty();
                     },
                     uiTimeoutMs),
                 "Alt+Q did not bring up the question");
        QVERIFY2(waitForActive(alert.first()), "the question does not have the focus");
        QVERIFY(desktop.key(QStringLiteral("Return")));
        QVERIFY2(service.waitForExit(5000), "the service is still running after 종 료");
        QCOMPARE(service.exitStatus(), QProcess::NormalExit);
        QCOMPARE(service.exitCode(), 0);
        QCOMPARE(loginItemLines(), 1);
        QVERIFY2(waitUntil([this] { return !desktop.trayIcon().exists(); }, uiTimeoutMs),
                 "the icon stayed in the tray");
        QVERIFY(!ServiceProcess::gatewayAcceptsConnections());
    }

    void relaunchDoesNotAddTheLoginItemAgain() {
        service.killHard(); // only if the exit above failed: this step starts the service anew
        QVERIFY2(service.startOnScreen(), qPrintable(serviceOutput()));
        QVERIFY2(waitUntil([this] { return desktop.trayIcon().viewable; }, 10000),
                 "no icon appeared in the tray");
        QList<WindowId> found;
        QVERIFY(waitUntil(
            [&] {
                found = serviceWindowsNamed(pagesTitle, false);
                return found.size() == 1;
            },
            uiTimeoutMs));
        popover = found.first();
        // The service answers the icon from its event loop, which runs only once the launch
        // is over, login items included: an open popover says there is nothing more to come.
        openPopover();
        if (QTest::currentTestFailed())
            return;
        QCOMPARE(loginItemLines(), 0);
        const QStringList entries = QDir(service.configHome() + QStringLiteral("/autostart"))
                                        .entryList({QStringLiteral("*.desktop")}, QDir::Files);
        QCOMPARE(entries, QStringList{QStringLiteral("teranocounter.desktop")});
        service.killHard();
    }

    void secondLaunchWithoutATrayShowsThePages() {
        service.killHard(); // only if a step above failed
        QVERIFY2(desktop.stopTray(), "the tray panel did not go away");
        QVERIFY2(service.startOnScreen(), qPrintable(serviceOutput()));
        QVERIFY2(service.waitForStdoutLine(noTray, 10000), qPrintable(serviceOutput()));
        QVERIFY(serviceWindowsNamed(pagesTitle, true).isEmpty());

        QByteArray out, err;
        QCOMPARE(service.runToEnd({}, &out, &err), 0);
        QCOMPARE(QString::fromUtf8(out), alreadyRunning + u'\n');
        QCOMPARE(err, QByteArray());

        QList<WindowId> pages;
        QVERIFY2(waitUntil(
                     [&] {
                         pages = serviceWindowsNamed(pagesTitle, true);
                         return !pages.isEmpty();
                     },
                     uiTimeoutMs),
                 "the running service showed no window named 테라노카운터");
        const QString picture = QStringLiteral(TEST_ARTIFACTS_DIR) + QStringLiteral("/pages.png");
        QVERIFY(QDir().mkpath(QStringLiteral(TEST_ARTIFACTS_DIR)));
        QString problem;
        waitUntil(
            [&] {
                problem = desktop.screenshot(picture)
                              ? darkOnLightProblem(picture, desktop.window(pages.first()).geometry)
                              : QStringLiteral("import could not take a screenshot");
                return problem.isEmpty();
            },
            uiTimeoutMs);
        QVERIFY2(problem.isEmpty(), qPrintable(problem + QStringLiteral(" (") + picture + u')'));

        // Its close button (Alt+C) puts the window away again; the service goes on.
        QVERIFY(desktop.key(QStringLiteral("alt+c")));
        QVERIFY2(waitUntil([&] { return serviceWindowsNamed(pagesTitle, true).isEmpty(); }, uiTimeoutMs),
                 "Alt+C did not close the window of pages");

        QVERIFY(service.isRunning());
        PosClient pos;
        QVERIFY2(pos.open(ServiceProcess::gatewayPort), "the first service no longer accepts a POS page");
        service.killHard();
    }
};

QTEST_GUILESS_MAIN(DesktopTest)
#include "tst_desktop.moc"
