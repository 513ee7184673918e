// The application shell under the offscreen platform: the storyboard, the main page's
// buttons and exit alert, where the popover opens, login items and the one-instance socket.
#include "common/settings.h"
#include "common/userdefaults.h"
#include "forked.h"
#include "gateway/websocketviewcontroller.h"
#include "posclient.h"
#include "recordingoutlets.h"
#include "service/service.h"
#include "shell/appdelegate.h"
#include "shell/loginitems.h"
#include "shell/popover.h"
#include "shell/singleinstance.h"
#include "shell/viewcontroller.h"
#include "stdoutcapture.h"
#include "terminal_serial/serialportmanager.h"
#include "terminal_serial/usbviewcontroller.h"
#include "terminal_tcp/tcpviewcontroller.h"
#include "wait.h"

#include <QApplication>
#include <QLocalServer>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

namespace {

void writeFile(const QString &path, const QByteArray &contents) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(contents);
}

QByteArray desktopEntry(const QString &exec) {
    return "[Desktop Entry]\nType=Application\nName=X\nExec=" + exec.toUtf8() + "\n";
}

// Answers the next modal alert with the button titled `choice`, after noting what it shows.
struct AlertAnswer {
    QString title, text, informative;
    QStringList buttons;
    QMessageBox::Icon icon = QMessageBox::NoIcon;
    QPushButton *defaultButton = nullptr;
    QPushButton *escapeButton = nullptr;
    QStringList escapeAndDefault;

    void answerWith(const QString &choice) {
        QTimer::singleShot(0, [this, choice] {
            auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
            if (!box)
                return;
            title = box->windowTitle();
            text = box->text();
            informative = box->informativeText();
            icon = box->icon();
            QList<QPushButton *> ordered;
            for (QAbstractButton *b : box->findChildren<QPushButton *>())
                ordered << static_cast<QPushButton *>(b);
            // The order on screen: left to right.
            std::sort(ordered.begin(), ordered.end(), [](QPushButton *a, QPushButton *b) {
                return a->mapToGlobal(QPoint()).x() < b->mapToGlobal(QPoint()).x();
            });
            for (QPushButton *b : ordered) {
                buttons << b->text();
                if (b->isDefault())
                    escapeAndDefault << QStringLiteral("default:") + b->text();
            }
            if (box->escapeButton())
                escapeAndDefault << QStringLiteral("escape:") + box->escapeButton()->text();
            for (QPushButton *b : ordered)
                if (b->text() == choice)
                    b->click();
        });
    }
};

} // namespace

class ShellTest : public QObject {
    Q_OBJECT
    QTemporaryDir config;
    QTemporaryDir xdg;
    QString application;

private slots:
    void initTestCase() {
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(config.path()));
        application = QCoreApplication::applicationFilePath();
    }

    void init() {
        QDir(config.path() + "/autostart").removeRecursively();
        QDir(xdg.path()).removeRecursively();
        QDir().mkpath(xdg.path());
        qputenv("XDG_CONFIG_DIRS", QFile::encodeName(xdg.path() + "/a:" + xdg.path() + "/b"));
    }

    // ---- storyboard and main page

    void storyboardNamesTheMainSceneAndItsPages() {
        Service service;
        std::unique_ptr<ViewController> main(ViewController::freshController(service));
        QVERIFY(main);
        QCOMPARE(main->embeddedPages(),
                 (QStringList{"WebSocketViewController", "TCPViewController", "USBViewController"}));
        QVERIFY(!main->isViewLoaded()); // nothing starts before the popover first shows
        QVERIFY(!main->gatewayPage());
    }

    void missingSceneStopsTheServiceWithItsMessage_data() {
        QTest::addColumn<QByteArray>("storyboard");
        QTest::newRow("no such resource") << QByteArray();
        QTest::newRow("not JSON") << QByteArray("<document/>");
        QTest::newRow("other scene") << QByteArray(
            R"({"scenes":[{"identifier":"Other","class":"ViewController"}]})");
        QTest::newRow("wrong class") << QByteArray(
            R"({"scenes":[{"identifier":"ViewController","class":"NSView"}]})");
    }
    void missingSceneStopsTheServiceWithItsMessage() {
        QFETCH(QByteArray, storyboard);
        const QString path = xdg.filePath("Main.storyboard");
        if (!storyboard.isNull())
            writeFile(path, storyboard);
        const ChildOutcome outcome = runInChild([path] {
            Service service;
            ViewController::freshController(service, path);
        });
        QVERIFY(outcome.exitedNormally);
        QVERIFY(outcome.exitCode != 0);
        QCOMPARE(outcome.standardError,
                 QByteArray("fatal: Why cant i find ViewController? - Check Main.storyboard\n"));
    }

    void closeButtonAsksTheDelegateToClose() {
        Service service;
        std::unique_ptr<ViewController> main(ViewController::freshController(service));
        QSignalSpy closeRequested(main.get(), &ViewController::closeRequested);
        main->closeClicked();
        QCOMPARE(closeRequested.size(), 1);
    }

    // ---- how the pages' controllers are joined

    // Nothing joins the two channels: each steps back when the settings announce the other.
    void choosingOneTerminalChannelGreysTheOther() {
        SerialPortManager::Options noPorts;
        noPorts.systemPorts = false;
        SerialPortManager manager(noPorts);
        TCPViewController tcp;
        USBViewController usb(manager);
        RecordingTitle tcpTitle, usbTitle;
        tcp.titleLabel = &tcpTitle;
        usb.titleLabel = &usbTitle;

        tcp.titleLabelClicked();
        QCOMPARE(UserDefaults::standard().string("MAIN_INTERFACE"), std::optional<QString>("TCP"));
        QCOMPARE(tcpTitle.background, std::optional<Rgba>(PageColor::selectedBlue));
        QCOMPARE(usbTitle.background, std::optional<Rgba>(PageColor::deselectedGrey));
        usb.titleLabelClickedWithSender();
        QCOMPARE(UserDefaults::standard().string("MAIN_INTERFACE"), std::optional<QString>("USB"));
        QCOMPARE(usbTitle.background, std::optional<Rgba>(PageColor::selectedBlue));
        QCOMPARE(tcpTitle.background, std::optional<Rgba>(PageColor::deselectedGrey));

        // A page takes no notice of its own interface being announced; the other steps back.
        tcpTitle = {};
        usbTitle = {};
        Settings::shared().chooseInterface(Settings::Interface::Tcp);
        QCOMPARE(tcpTitle.background, std::nullopt);
        QCOMPARE(usbTitle.background, std::optional<Rgba>(PageColor::deselectedGrey));
        usbTitle = {};
        Settings::shared().chooseInterface(Settings::Interface::Usb);
        QCOMPARE(usbTitle.background, std::nullopt);
        QCOMPARE(tcpTitle.background, std::optional<Rgba>(PageColor::deselectedGrey));
    }

    void theGatewayHandsRequestsToTheActiveChannelAndSendsBackEitherOnesAnswers() {
        SerialPortManager::Options noPorts;
        noPorts.systemPorts = false;
        SerialPortManager manager(noPorts);
        TCPViewController tcp;
        USBViewController usb(manager);
        WebSocketViewController gateway(0);
        RecordingLabel label;
        gateway.websocketLabel = &label;
        gateway.viewDidLoad();
        connectTerminalChannels(&gateway, &tcp, &usb);
        StdoutCapture capture;

        UserDefaults::standard().setValue("MAIN_INTERFACE", "TCP");
        PosClient pos;
        QVERIFY(pos.open(gateway.server.serverPort()));
        // A KIS request with no terminal address set goes nowhere, but the TCP channel says
        // it took it.
        UserDefaults::standard().remove("TCP_IP");
        pos.send(R"({"requesttype":"payment","van":"KIS","data":[2,3]})");
        QVERIFY(waitUntil(
            [&] { return capture.lines().contains(R"(TCP request: requesttype "payment", van "KIS")"); },
            3000));
        emit tcp.answerReady({QStringLiteral("승인"), QStringLiteral("KIS7430")});
        QVERIFY(waitUntil([&] { return pos.texts.size() == 1; }, 3000));
        QCOMPARE(pos.texts[0],
                 QStringLiteral(R"({"response":{"data":"승인"},"devicetype":"CAT","devicename":"KIS7430"})"));
        emit usb.answerReady({QStringLiteral("OK"), QStringLiteral("TS-132N")});
        QVERIFY(waitUntil([&] { return pos.texts.size() == 2; }, 3000));
        QCOMPARE(pos.texts[1],
                 QStringLiteral(R"({"response":{"data":"OK"},"devicetype":"CAT","devicename":"TS-132N"})"));
    }

    void exitAsksInKoreanWithExitFirstAndCancelKeepsRunning() {
        AlertAnswer alert;
        alert.answerWith(QStringLiteral("취 소"));
        QVERIFY(!ViewController::askWithAlert(ViewController::exitQuestion, ViewController::exitText));
        QCOMPARE(alert.text, QStringLiteral("테라노카운터 서비스 종료"));
        QCOMPARE(alert.informative, QStringLiteral("테라노카운터 백그라운드 서비스를 종료 하시겠습니다."));
        QCOMPARE(alert.icon, QMessageBox::Warning);
        QCOMPARE(alert.buttons, (QStringList{"종 료", "취 소"}));
        QVERIFY(alert.escapeAndDefault.contains("escape:취 소"));

        AlertAnswer again;
        again.answerWith(QStringLiteral("종 료"));
        QVERIFY(ViewController::askWithAlert(ViewController::exitQuestion, ViewController::exitText));
    }

    void exitEndsTheProcessWithStatusZeroOnlyWhenConfirmed() {
        Service service;
        std::unique_ptr<ViewController> main(ViewController::freshController(service));
        main->dialogOKCancel = [](const QString &, const QString &) { return false; };
        main->exitClicked(); // still here
        const ChildOutcome confirmed = runInChild([&service] {
            std::unique_ptr<ViewController> child(ViewController::freshController(service));
            child->dialogOKCancel = [](const QString &, const QString &) { return true; };
            child->exitClicked();
            std::_Exit(3); // only reached if the exit did not happen
        });
        QVERIFY(confirmed.exitedNormally);
        QCOMPARE(confirmed.exitCode, 0);
    }

    void statusBarImageHasEveryTraySize() {
        const QIcon icon = AppDelegate::statusBarIcon();
        QVERIFY(!icon.isNull());
        for (const int size : {16, 22, 24, 32, 48, 64})
            QVERIFY2(icon.availableSizes().contains(QSize(size, size)), qPrintable(QString::number(size)));
    }

    void printQuotePrintsOneLine() {
        Service service;
        StdoutCapture capture;
        AppDelegate(service).printQuote();
        QCOMPARE(capture.lines().size(), 1);
        QVERIFY(capture.lines().first().startsWith(
            "Never put off until tomorrow what you can do the day after tomorrow. — "));
    }

    // ---- where the popover opens

    void popoverOpensCentredUnderTheIcon() {
        const QRect screen(0, 0, 1920, 1080);
        QCOMPARE(Popover::placement(QRect(900, 0, 24, 24), QSize(300, 500), screen), QPoint(762, 28));
    }

    void popoverStaysOnTheScreenAtItsRightEdge() {
        const QRect screen(0, 0, 1024, 768);
        QCOMPARE(Popover::placement(QRect(1000, 0, 22, 26), QSize(296, 515), screen), QPoint(728, 30));
    }

    void popoverOpensAboveAnIconInABottomPanel() {
        const QRect screen(0, 0, 1024, 740);
        QCOMPARE(Popover::placement(QRect(500, 744, 24, 24), QSize(300, 500), screen).y(), 740 - 500);
    }

    // ---- login items

    void firstLaunchAddsTheLoginItemAndSaysSo() {
        writeFile(xdg.filePath("a/autostart/other.desktop"), desktopEntry("/bin/true"));
        StdoutCapture capture;
        LoginItems items(application);
        QVERIFY(!items.findLoginItem().item);
        items.addToLoginItems();
        QCOMPARE(capture.lines(), QStringList{"Add login item"});
        const QString entry = config.path() + "/autostart/teranocounter.desktop";
        QVERIFY(QFileInfo::exists(entry));
        QCOMPARE(LoginItems::resolvedTarget(entry),
                 std::optional<QString>(QFileInfo(application).canonicalFilePath()));
        const LoginItems::Found found = items.findLoginItem();
        QCOMPARE(found.item, std::optional<QString>(entry));
    }

    void laterLaunchesFindItAndAddNothing() {
        writeFile(xdg.filePath("b/autostart/other.desktop"), desktopEntry("/bin/true"));
        LoginItems items(application);
        items.addToLoginItems();
        const QString entry = config.path() + "/autostart/teranocounter.desktop";
        const QDateTime written = QFileInfo(entry).lastModified();
        StdoutCapture capture;
        items.addToLoginItems();
        items.addToLoginItems();
        QCOMPARE(capture.lines(), QStringList());
        QCOMPARE(QFileInfo(entry).lastModified(), written);
        QCOMPARE(QDir(config.path() + "/autostart").entryList(QDir::Files).size(), 1);
    }

    void anItemElsewhereThatStartsThisApplicationCounts() {
        writeFile(xdg.filePath("b/autostart/pos-service.desktop"),
                  desktopEntry("\"" + application + "\" --headless"));
        StdoutCapture capture;
        LoginItems(application).addToLoginItems();
        QCOMPARE(capture.lines(), QStringList());
        QVERIFY(!QFileInfo::exists(config.path() + "/autostart/teranocounter.desktop"));
    }

    void itemsThatCannotBeResolvedAreSkipped() {
        writeFile(xdg.filePath("a/autostart/gone.desktop"), desktopEntry("/nonexistent/program"));
        writeFile(xdg.filePath("a/autostart/broken.desktop"), "not a desktop entry");
        LoginItems items(application);
        const LoginItems::Found found = items.findLoginItem();
        QVERIFY(!found.item);
        QCOMPARE(found.last, xdg.filePath("a/autostart/gone.desktop"));
    }

    void emptyLoginItemListStopsTheService() {
        const ChildOutcome outcome = runInChild([this] { LoginItems(application).addToLoginItems(); });
        QVERIFY(outcome.exitedNormally);
        QVERIFY(outcome.exitCode != 0);
        QVERIFY2(outcome.standardError.startsWith("fatal: "), outcome.standardError.constData());
        QVERIFY(!QFileInfo::exists(config.path() + "/autostart/teranocounter.desktop"));
    }

    // ---- one instance

    void secondLaunchReachesTheRunningOne() {
        const QString path = xdg.filePath("instance");
        QCOMPARE(SingleInstance::askRunningInstanceToShow(path, 500), SingleInstance::Answer::NoneRunning);
        SingleInstance running;
        int asked = 0;
        QVERIFY(running.listen(path, [&] {
            ++asked;
            return true;
        }));
        SingleInstance::Answer answer = SingleInstance::Answer::NoneRunning;
        // The running instance answers from its event loop; ask from a second thread.
        std::unique_ptr<QThread> second(
            QThread::create([&] { answer = SingleInstance::askRunningInstanceToShow(path); }));
        second->start();
        QVERIFY(waitUntil([&] { return second->isFinished(); }, 5000));
        QCOMPARE(answer, SingleInstance::Answer::Shown);
        QCOMPARE(asked, 1);
    }

    void headlessRunningInstanceSaysItCannotShow() {
        const QString path = xdg.filePath("instance");
        SingleInstance running;
        QVERIFY(running.listen(path, [] { return false; }));
        SingleInstance::Answer answer = SingleInstance::Answer::NoneRunning;
        std::unique_ptr<QThread> second(
            QThread::create([&] { answer = SingleInstance::askRunningInstanceToShow(path); }));
        second->start();
        QVERIFY(waitUntil([&] { return second->isFinished(); }, 5000));
        QCOMPARE(answer, SingleInstance::Answer::CannotShow);
    }

    void socketLeftByAKilledServiceIsReplaced() {
        const QString path = xdg.filePath("instance");
        writeFile(path, "stale"); // a file where the socket was
        QCOMPARE(SingleInstance::askRunningInstanceToShow(path, 500), SingleInstance::Answer::NoneRunning);
        SingleInstance running;
        QVERIFY(running.listen(path, [] { return true; }));
    }

    void socketLivesInTheRuntimeFolderUnderTheUsersName() {
        QTemporaryDir runtime;
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtime.path()));
        const QString path = SingleInstance::socketPath();
        qunsetenv("XDG_RUNTIME_DIR");
        QVERIFY2(path.startsWith(runtime.path() + "/teranocounter-" + QString::number(getuid()) + "-"),
                 qPrintable(path));
        QVERIFY(SingleInstance::socketPath().startsWith(QDir::tempPath() + "/teranocounter-"));
    }
};

QTEST_MAIN(ShellTest)
#include "tst_shell.moc"
