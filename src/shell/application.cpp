#include "application.h"

#include "appdelegate.h"
#include "browserpolicy.h"
#include "commandline.h"
#include "common/log.h"
#include "common/settings.h"
#include "common/terminationsignals.h"
#include "common/userdefaults.h"
#include "gateway/originpolicy.h"
#include "kitchen/kitchenretryqueue.h"
#include "lockdown.h"
#include "service/service.h"
#include "singleinstance.h"
#include "store/pendingstore.h"
#include "viewcontroller.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QSystemTrayIcon>
#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>
#include <unistd.h>

namespace {

void printLine(std::FILE *stream, const QString &text) {
    const QByteArray bytes = text.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    std::fflush(stream);
}

QString settingText(const QVariant &value) {
    if (value.typeId() == QMetaType::QStringList)
        return value.toStringList().join(QStringLiteral(", "));
    return value.toString();
}

int runSettingsChores(const CommandLine &line) {
    UserDefaults &defaults = UserDefaults::standard();
    for (const auto &[key, value] : line.settingsToWrite)
        defaults.setValue(key, value);
    for (const QString &origin : line.originsToAllow) {
        if (origin.isEmpty())
            OriginPolicy::clearAllowedOrigins();
        else
            OriginPolicy::allowOrigin(origin);
    }
    if (!line.originsToAllow.isEmpty()) {
        const QStringList allowed = OriginPolicy::allowedOrigins();
        printLine(stdout, allowed.isEmpty() ? Settings::name(Settings::Key::WebSocketAllowedOrigins) +
                                                  QStringLiteral(" is not set: every page may connect")
                                            : Settings::name(Settings::Key::WebSocketAllowedOrigins) + u'=' +
                                                  allowed.join(u','));
    }
    if (line.lockDown)
        for (const LockDown::Setting &setting : LockDown::apply())
            printLine(stdout, setting.text());
    if (line.printSettings) {
        QStringList keys = defaults.keys();
        keys.sort();
        for (const QString &key : keys)
            printLine(stdout, key + u'=' + settingText(defaults.value(key).value_or(QVariant())));
    }
    return 0;
}

// What is waiting to be delivered: kind, age and size or printer, never the content (it
// holds payment answers and orders). It only looks: a file the service would set aside is
// named with the reason and left as it is.
int runPendingChores(const CommandLine &line) {
    const QString path = PendingStore::defaultPath();
    if (!QFileInfo::exists(path)) {
        printLine(stdout, QStringLiteral("nothing is waiting (%1 does not exist)").arg(path));
        return 0;
    }
    PendingStore store(path, PendingStore::Use::Inspect);
    if (store.isUnusable()) {
        printLine(stderr,
                  QStringLiteral("teranocounter: %1 cannot be read: %2; the service sets it aside and "
                                 "starts a fresh store when it next opens it")
                      .arg(path, store.errorString()));
        return 1;
    }
    if (!store.isOpen()) {
        printLine(stderr,
                  QStringLiteral("teranocounter: %1 cannot be opened: %2").arg(path, store.errorString()));
        return 1;
    }
    const qint64 now = PendingStore::nowMs();
    const QList<PendingStore::Answer> answers = store.answers();
    const QList<PendingStore::Order> orders = store.orders();
    if (!store.errorString().isEmpty()) {
        printLine(stderr,
                  QStringLiteral("teranocounter: %1 cannot be read: %2").arg(path, store.errorString()));
        return 1;
    }
    for (const PendingStore::Answer &answer : answers)
        printLine(stdout, QStringLiteral("answer waiting %1, %2 bytes")
                              .arg(describeAge(now - answer.storedAtMs))
                              .arg(answer.json.size()));
    for (const PendingStore::Order &order : orders)
        printLine(stdout, QStringLiteral("kitchen order waiting %1, printer %2:%3, %4 bytes")
                              .arg(describeAge(now - order.arrivedAtMs), order.address)
                              .arg(order.port)
                              .arg(order.payload.size()));
    if (answers.isEmpty() && orders.isEmpty())
        printLine(stdout, QStringLiteral("nothing is waiting"));
    for (const QString &aside : store.setAsideFiles())
        printLine(stdout, QStringLiteral("set aside by the service, not read: %1").arg(aside));
    if (line.clearPending) {
        qsizetype answersRemoved = 0;
        qsizetype ordersRemoved = 0;
        for (const PendingStore::Answer &answer : answers)
            answersRemoved += store.removeAnswer(answer.id) ? 1 : 0;
        for (const PendingStore::Order &order : orders)
            ordersRemoved += store.removeOrder(order.id) ? 1 : 0;
        printLine(stdout, QStringLiteral("removed %1 answers and %2 kitchen orders")
                              .arg(answersRemoved)
                              .arg(ordersRemoved));
        if (answersRemoved + ordersRemoved < answers.size() + orders.size()) {
            printLine(stderr, QStringLiteral("teranocounter: %1 could not be removed: %2")
                                  .arg(answers.size() + orders.size() - answersRemoved - ordersRemoved)
                                  .arg(store.errorString()));
            return 1;
        }
    }
    return 0;
}

// Writes (or removes) the browsers' policy files. Errors go to standard error and the other
// browsers are still done: one browser's read-only folder must not leave the rest unset.
int runBrowserPolicyChore(const CommandLine &line) {
    QStringList origins = line.policyOrigins;
    if (!line.removeBrowserPolicy && origins.isEmpty()) {
        origins = BrowserPolicy::originsFromSettings();
        if (origins.isEmpty()) {
            printLine(stderr, QStringLiteral("teranocounter: --browser-policy: no origin given and %1 lists "
                                             "none: name the POS page's origin, as in --browser-policy "
                                             "https://pos.example.com")
                                  .arg(Settings::name(Settings::Key::WebSocketAllowedOrigins)));
            return 2;
        }
    }
    const QString root = BrowserPolicy::rootFromEnvironment();
    if (root.isEmpty() && geteuid() != 0) {
        // sudo reads root's settings, not this user's: the origins are spelt out.
        const QStringList again =
            QStringList{QStringLiteral("--browser-policy")} +
            (line.removeBrowserPolicy ? QStringList{QStringLiteral("--remove")} : origins);
        printLine(stderr, QStringLiteral("teranocounter: --browser-policy writes the browsers' policies "
                                         "under /etc, which needs root: run %1")
                              .arg(BrowserPolicy::sudoCommand(BrowserPolicy::programPath(), again)));
        return 2;
    }
    const QList<BrowserPolicy::Outcome> outcomes =
        line.removeBrowserPolicy ? BrowserPolicy::remove(root) : BrowserPolicy::write(origins, root);
    int status = 0;
    for (const BrowserPolicy::Outcome &outcome : outcomes) {
        if (outcome.ok) {
            printLine(stdout, outcome.line);
        } else {
            printLine(stderr, QStringLiteral("teranocounter: ") + outcome.line);
            status = 1;
        }
    }
    return status;
}

// Qt wants a private runtime directory and complains on standard error when the session
// has none (a bare `su`, a container, a test with its own HOME). Give it a fresh private
// one, quietly, so standard error carries only what matters.
void ensureRuntimeDirectory() {
    if (!qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR"))
        return;
    QByteArray path = QFile::encodeName(QDir::tempPath()) + "/teranocounter-runtime-XXXXXX";
    if (mkdtemp(path.data())) // created 0700 and owned by us, never someone else's directory
        qputenv("XDG_RUNTIME_DIR", path);
}

// The usual soft limit of 1024 descriptors is a leftover of select(); the event loop polls
// and has no use for it. Each POS, answer and printer connection takes one, so the service
// takes all the kernel lets it have: a flood of idle connections then runs into the hard
// limit much later, if ever.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

bool haveDisplay() {
    return !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

// A second launch shows the running service's pages instead of fighting it for ports. True
// when a running service answered, and this launch has said so and must end.
bool anotherInstanceAnswered(const QString &instanceSocket) {
    switch (SingleInstance::askRunningInstanceToShow(instanceSocket)) {
    case SingleInstance::Answer::Shown:
        logLine(QStringLiteral("Terano Counter is already running: its settings are shown"));
        return true;
    case SingleInstance::Answer::CannotShow:
        logLine(QStringLiteral(
                    "Terano Counter is already running without a screen (--headless): settings are in %1")
                    .arg(UserDefaults::standard().fileName()));
        return true;
    case SingleInstance::Answer::NoneRunning:
        break;
    }
    return false;
}

// --headless, or no display at all: the service alone under a QCoreApplication, with no
// widget and no platform plugin. A later launch is told there are no pages to show.
int runWithoutScreen(int argc, char **argv, const QString &instanceSocket) {
    QCoreApplication app(argc, argv);
    endOnTerminationSignalsBetweenEvents();
    if (anotherInstanceAnswered(instanceSocket))
        return 0;
    // Listening before the servers start: a launch from then on asks this one (answered once
    // the event loop runs) instead of becoming a second service that finds the ports taken.
    SingleInstance instance;
    instance.listen(instanceSocket, [] { return false; });
    Service service;
    service.start();
    // Kitchen orders an earlier run kept (KITCHEN_RETRY_MINUTES) go out again at once.
    KitchenRetryQueue::instance().resumeAtStart();
    return QCoreApplication::exec();
}

} // namespace

int runTeranoCounter(int argc, char **argv) {
    // Diagnostics must reach a journal or a pipe line by line, not when a buffer fills.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    const CommandLine line = parseCommandLine(arguments);
    if (!line.error.isEmpty()) {
        printLine(stderr, QStringLiteral("teranocounter: ") + line.error);
        return 2;
    }
    for (const QString &warning : line.warnings)
        printLine(stderr, QStringLiteral("teranocounter: warning: ") + warning);
    if (line.help) {
        std::fputs(usageText().toUtf8().constData(), stdout);
        return 0;
    }
    if (line.version) {
        std::fputs(versionText().toUtf8().constData(), stdout);
        return 0;
    }
    if (!line.settingsToWrite.isEmpty() || !line.originsToAllow.isEmpty() || line.printSettings ||
        line.lockDown)
        return runSettingsChores(line);
    if (line.listPending)
        return runPendingChores(line);
    if (line.browserPolicy)
        return runBrowserPolicyChore(line);

    raiseDescriptorLimit();
    const QString instanceSocket = SingleInstance::socketPath();
    ensureRuntimeDirectory();
    if (line.headless || !haveDisplay())
        return runWithoutScreen(argc, argv, instanceSocket);

    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        // A display that cannot be reached (a stale DISPLAY after logging out, say) must
        // not keep the POS gateway from starting: fall back to running without a screen.
        qputenv("QT_QPA_PLATFORM",
                qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ? "xcb;offscreen" : "wayland;xcb;offscreen");
    }
    // The offscreen platform reports what it cannot do for windows nobody sees.
    QLoggingCategory::setFilterRules(QStringLiteral("qt.qpa.*=false"));
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    endOnTerminationSignalsBetweenEvents();

    if (anotherInstanceAnswered(instanceSocket))
        return 0;
    // Both ways below listen before the launch starts the servers: a launch from then on
    // asks this one (answered once the event loop runs) instead of becoming a second
    // service that finds the ports taken.
    SingleInstance instance;
    // What the pages show; their loading starts it, in the order the pages come.
    Service service;

    if (QSystemTrayIcon::isSystemTrayAvailable()) {
        AppDelegate delegate(service);
        instance.listen(instanceSocket, [&delegate] {
            delegate.showPopover();
            return true;
        });
        delegate.applicationDidFinishLaunching();
        KitchenRetryQueue::instance().resumeAtStart();
        return QApplication::exec();
    }

    logLine(QStringLiteral("no system tray: running without a tray icon, as with --headless"));
    // No tray to show the pages from: they are loaded but not shown, which starts the POS
    // server, the terminal answer listeners and the stored serial port all the same. A later
    // launch shows them as an ordinary window.
    std::unique_ptr<ViewController> pages(ViewController::freshController(service));
    instance.listen(instanceSocket, [&pages] {
        pages->setWindowTitle(QStringLiteral("테라노카운터"));
        pages->show();
        pages->raise();
        pages->activateWindow();
        return true;
    });
    pages->loadViewIfNeeded();
    pages->viewDidAppear();
    // The page's close button hides the window as it closes the popover in the tray.
    QObject::connect(pages.get(), &ViewController::closeRequested, pages.get(), &QWidget::hide);
    // Kitchen orders an earlier run kept (KITCHEN_RETRY_MINUTES) go out again at once.
    KitchenRetryQueue::instance().resumeAtStart();
    return QApplication::exec();
}
