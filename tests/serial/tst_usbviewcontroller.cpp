// The USB terminal channel seen from its page and from the line: settings, the port it
// opens, what the POS's requests put on the line, hot-plug, and the answers that go back.
// Pseudo-terminals are the terminals; the page's controls are recording fakes.
#include "common/cp949.h"
#include "common/settings.h"
#include "common/userdefaults.h"
#include "devsim/pseudoterminal.h"
#include "forked.h"
#include "terminal_serial/serialportmanager.h"
#include "terminal_serial/usbviewcontroller.h"
#include "wait.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QTemporaryDir>
#include <QtTest>

namespace {

struct FakePopUp : PopUpButtonOutlet {
    QStringList items;
    int selected = -1;
    bool enabled = true;
    int fills = 0;
    void removeAllItems() override {
        items.clear();
        selected = -1;
    }
    void addItemsWithTitles(const QStringList &titles) override {
        ++fills;
        items << titles;
        if (selected < 0 && !items.isEmpty())
            selected = 0; // a popup always shows an item once it has one
    }
    QStringList itemTitles() const override { return items; }
    void selectItemAtIndex(int index) override { selected = index; }
    int indexOfSelectedItem() const override { return selected; }
    QString titleOfSelectedItem() const override { return items.value(selected); }
    void setEnabled(bool e) override { enabled = e; }
    // What the user does: pick an item, then the page calls the action.
    void choose(const QString &title) { selected = static_cast<int>(items.indexOf(title)); }
};

struct FakeTitle : TitleOutlet {
    std::optional<Rgba> background;
    std::optional<Rgba> text;
    QStringList calls;
    void setBackgroundColor(const Rgba &c) override {
        background = c;
        calls << "background";
    }
    void setTextColor(const Rgba &c) override {
        text = c;
        calls << "text";
    }
};

struct FakeControl : ControlOutlet {
    bool enabled = true;
    void setEnabled(bool e) override { enabled = e; }
};

// A request as routing hands it over: "requesttype" counts only as JSON text.
TerminalRequest request(const QVariant &requestType, const QByteArray &data) {
    TerminalRequest r;
    r.data = data;
    if (requestType.typeId() == QMetaType::QString)
        r.requestType = requestType.toString();
    return r;
}

QByteArray allByteValues() {
    QByteArray bytes;
    for (int i = 0; i < 256; ++i)
        bytes.append(static_cast<char>(i));
    return bytes;
}

QByteArray ts132n(const QByteArray &payload) {
    return QByteArray::fromHex("02") + "HDR1" + payload + "T2" + QByteArray::fromHex("03");
}

UserDefaults &defaults() {
    return UserDefaults::standard();
}

SerialPortManager::Options envOnly(const QStringList &paths) {
    SerialPortManager::Options options;
    options.systemPorts = false;
    options.extraPaths = paths;
    return options;
}

} // namespace

class UsbViewControllerTest : public QObject {
    Q_OBJECT
    QTemporaryDir config;
    std::unique_ptr<QTemporaryDir> dir;
    int tcpControl =
        0; // times USB was announced as the active interface (only the controller chooses it here)
    QList<TerminalAnswer> responses;
    QPointer<USBViewController> current; // the controller requests are handed to

    FakePopUp portPopup, baudPopup, deviceTypePopup;
    FakeTitle title;
    FakeControl testButton;

    QString path(const QString &name) const { return dir->filePath(name); }

    std::unique_ptr<USBViewController> makeController(SerialPortManager &manager) {
        auto c = std::make_unique<USBViewController>(manager);
        current = c.get();
        QObject::connect(
            &Settings::shared(), &Settings::interfaceChosen, c.get(),
            [this](Settings::Interface chosen) { tcpControl += chosen == Settings::Interface::Usb; });
        QObject::connect(c.get(), &TerminalChannel::answerReady,
                         [this](const TerminalAnswer &a) { responses << a; });
        c->portPopupButton = &portPopup;
        c->baudPopupButton = &baudPopup;
        c->titleLabel = &title;
        c->connectionTestButton = &testButton;
        c->deviceTypePopupButton = &deviceTypePopup;
        return c;
    }

    // As routing hands a request over: to the controller there is, if any.
    void post(const TerminalRequest &r) {
        if (current)
            current->handleRequest(r);
    }

    // Runs `body` in a child process and expects it to stop with a reason containing `reason`.
    void expectStop(const std::function<void()> &body, const char *reason) {
        const ChildOutcome outcome = runInChild(body);
        QVERIFY(outcome.exitedNormally);
        QVERIFY(outcome.exitCode != 0);
        QVERIFY2(outcome.standardError.startsWith("fatal: ") && outcome.standardError.contains(reason),
                 outcome.standardError.constData());
    }
    void expectNoStop(const std::function<void()> &body) {
        const ChildOutcome outcome = runInChild(body);
        QVERIFY(outcome.exitedNormally);
        QCOMPARE(outcome.exitCode, 0);
        QCOMPARE(outcome.standardError, QByteArray());
    }

    // Shows that nothing more went on the line after `expected`, without waiting for a time: a
    // print of "PROBE" goes out behind it on the same line and must follow it at once.
    void nothingFollows(devsim::PseudoTerminal &terminal, const QByteArray &expected) {
        post(request("print", "PROBE"));
        QVERIFY(terminal.waitForReceived(expected.size() + 5, 2000));
        QCOMPARE(terminal.received(), expected + "PROBE");
    }

private slots:
    void initTestCase() { qputenv("XDG_CONFIG_HOME", QFile::encodeName(config.path())); }

    void init() {
        dir = std::make_unique<QTemporaryDir>();
        for (const QString &key : defaults().keys())
            defaults().remove(key);
        tcpControl = 0;
        responses.clear();
        portPopup = {};
        baudPopup = {};
        deviceTypePopup = {};
        deviceTypePopup.addItemsWithTitles({"TS-132N", "TS-167", "KIS-7430"}); // from the page's layout
        title = {};
        testButton = {};
    }

    // ---- start-up and settings

    void firstStartWithEmptySettings() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        auto c = makeController(manager);
        c->viewDidLoad();

        QCOMPARE(defaults().value("SERIAL_DEVICE_TYPE"), std::optional<QVariant>(QStringLiteral("TS-132N")));
        QCOMPARE(defaults().value("BAUD_RATE")->toString(), QStringLiteral("9600"));
        QVERIFY(!defaults().value("MAIN_INTERFACE"));
        QVERIFY(!defaults().value("USB_PORT"));
        QVERIFY(!c->serialPort());
        QCOMPARE(portPopup.items, QStringList{link.path()});
        QCOMPARE(baudPopup.items, (QStringList{"9600", "38400", "57600", "115200"}));
        QCOMPARE(tcpControl, 0);
        QVERIFY(title.calls.isEmpty());
    }

    void storedModelIsSelectedInTheModelPopup() {
        SerialPortManager manager(envOnly({}));
        defaults().setValue("SERIAL_DEVICE_TYPE", "KIS-7430");
        makeController(manager)->viewDidLoad();
        QCOMPARE(deviceTypePopup.selected, 2);
        QCOMPARE(defaults().string("SERIAL_DEVICE_TYPE"), std::optional<QString>("KIS-7430"));
    }

    void unknownStoredModelSelectsNothingAndIsKept() {
        SerialPortManager manager(envOnly({}));
        defaults().setValue("SERIAL_DEVICE_TYPE", "XYZ-1");
        makeController(manager)->viewDidLoad();
        QCOMPARE(deviceTypePopup.selected, 0); // as the layout left it
        QCOMPARE(defaults().string("SERIAL_DEVICE_TYPE"), std::optional<QString>("XYZ-1"));
    }

    void storedPortIsOpenedAtStartWithTheStoredRate() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        defaults().setValue("BAUD_RATE", "57600");
        auto c = makeController(manager);
        c->viewDidLoad();
        QVERIFY(c->serialPort());
        QVERIFY(c->serialPort()->isOpen());
        QCOMPARE(c->serialPort()->description(), link.path());
        QCOMPARE(portPopup.selected, 0);
        QCOMPARE(baudPopup.selected, 2);
        QCOMPARE(terminal.outputSpeed(), speed_t(B57600));
    }

    void storedRateOutsideTheListSelectsNothingAndSetsNothing() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        defaults().setValue("BAUD_RATE", "1200");
        auto c = makeController(manager);
        c->viewDidLoad();
        QVERIFY(c->serialPort()->isOpen());
        QCOMPARE(terminal.outputSpeed(), speed_t(B9600));
        QCOMPARE(defaults().string("BAUD_RATE"), std::optional<QString>("1200"));
    }

    void storedPortNotPluggedInOpensNothingAndPluggingItInOpensIt() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        auto c = makeController(manager);
        c->viewDidLoad();
        QVERIFY(!c->serialPort());
        QVERIFY(portPopup.items.isEmpty());

        QElapsedTimer clock;
        clock.start();
        QVERIFY(link.plug(terminal));
        QVERIFY(waitUntil([&] { return c->serialPort() && c->serialPort()->isOpen(); }, 2000));
        qInfo("opened %lld ms after the plug", clock.elapsed());
        QCOMPARE(portPopup.items, QStringList{link.path()});
        post(request("payment", "PAY"));
        QVERIFY(terminal.waitForReceived(3, 2000));
        QCOMPARE(terminal.received(), QByteArray("PAY"));
    }

    // ---- popups

    void choosingAPortStoresItOpensItAndSetsThePopupsRate() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        auto c = makeController(manager);
        c->viewDidLoad();
        baudPopup.choose("115200");
        portPopup.choose(link.path());
        c->portChanged();
        QCOMPARE(defaults().string("USB_PORT"), std::optional<QString>(link.path()));
        QVERIFY(c->serialPort()->isOpen());
        QCOMPARE(terminal.outputSpeed(), speed_t(B115200));
        QCOMPARE(defaults().string("BAUD_RATE"),
                 std::optional<QString>("9600")); // only the rate popup writes it
    }

    void choosingAnotherPortClosesThePreviousBeforeOpeningTheNew() {
        devsim::PseudoTerminal a, b;
        devsim::PortLink linkA(path("a")), linkB(path("b"));
        QVERIFY(linkA.plug(a));
        QVERIFY(linkB.plug(b));
        SerialPortManager manager(envOnly({linkA.path(), linkB.path()}));
        auto c = makeController(manager);
        c->viewDidLoad();
        portPopup.choose(linkA.path());
        c->portChanged();
        const auto portA = c->serialPort();
        const auto portB = manager.availablePorts()[1];
        QStringList events;
        connect(portA.get(), &SerialPort::didClose, this, [&] { events << "close a"; });
        connect(portB.get(), &SerialPort::didOpen, this, [&] { events << "open b"; });
        portPopup.choose(linkB.path());
        c->portChanged();
        QCOMPARE(events, (QStringList{"close a", "open b"}));
        QVERIFY(!portA->isOpen());
        QVERIFY(portA->delegate() == nullptr);
        QVERIFY(c->serialPort() == portB);
        QVERIFY(portB->delegate() == c.get());
        post(request("payment", "B"));
        QVERIFY(b.waitForReceived(1, 2000));
        keepRunningFor(100);
        QCOMPARE(a.received(), QByteArray());
    }

    void choosingABaudRateWhileAPortIsOpenChangesItsRateWithoutClosingIt() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        // Counted before the controller is made: its end closes the port, which still counts.
        int closes = 0;
        auto c = makeController(manager);
        c->viewDidLoad();
        const auto port = c->serialPort();
        connect(port.get(), &SerialPort::didClose, this, [&] { ++closes; });
        baudPopup.choose("38400");
        c->baudrateChanged();
        QCOMPARE(defaults().string("BAUD_RATE"), std::optional<QString>("38400"));
        QCOMPARE(terminal.outputSpeed(), speed_t(B38400));
        QCOMPARE(closes, 0);
        QVERIFY(port->isOpen());
    }

    void choosingABaudRateWithoutAPortOnlyStoresIt() {
        SerialPortManager manager(envOnly({}));
        auto c = makeController(manager);
        c->viewDidLoad();
        baudPopup.choose("57600");
        c->baudrateChanged();
        QCOMPARE(defaults().string("BAUD_RATE"), std::optional<QString>("57600"));
    }

    void choosingAModelStoresIt() {
        SerialPortManager manager(envOnly({}));
        auto c = makeController(manager);
        c->viewDidLoad();
        deviceTypePopup.choose("TS-167");
        c->deviceTypeChanged();
        QCOMPARE(defaults().string("SERIAL_DEVICE_TYPE"), std::optional<QString>("TS-167"));
    }

    // ---- selecting and deselecting USB

    void selectingUsbPostsDeselectEveryTime() {
        SerialPortManager manager(envOnly({}));
        auto c = makeController(manager);
        c->viewDidLoad();
        portPopup.enabled = baudPopup.enabled = deviceTypePopup.enabled = testButton.enabled = false;
        c->titleLabelClickedWithSender();
        QCOMPARE(defaults().string("MAIN_INTERFACE"), std::optional<QString>("USB"));
        QCOMPARE(title.background, std::optional<Rgba>(PageColor::selectedBlue));
        QCOMPARE(title.text, std::optional<Rgba>(PageColor::white));
        QVERIFY(portPopup.enabled && baudPopup.enabled && deviceTypePopup.enabled && testButton.enabled);
        c->titleLabelClickedWithSender(); // already selected: the same again, without harm
        c->viewDidAppear();               // shown again while USB is selected
        QCOMPARE(tcpControl, 3);
        QCOMPARE(title.calls,
                 (QStringList{"background", "text", "background", "text", "background", "text"}));
    }

    void viewShownWhileAnotherInterfaceIsActiveDoesNothing() {
        SerialPortManager manager(envOnly({}));
        auto c = makeController(manager);
        c->viewDidLoad();
        c->viewDidAppear(); // never chosen
        defaults().setValue("MAIN_INTERFACE", "TCP");
        c->viewDidAppear();
        defaults().setValue("MAIN_INTERFACE", "usb");
        c->viewDidAppear();
        QCOMPARE(tcpControl, 0);
        QVERIFY(title.calls.isEmpty());
        QCOMPARE(defaults().string("MAIN_INTERFACE"), std::optional<QString>("usb"));
    }

    void tcpTakingOverGreysTheTitleAndDisablesTheControls() {
        SerialPortManager manager(envOnly({}));
        auto c = makeController(manager);
        c->viewDidLoad();
        c->titleLabelClickedWithSender();
        title.calls.clear();
        defaults().setValue("MAIN_INTERFACE", "TCP"); // the TCP page wrote its own value
        c->otherInterfaceChosen();
        QCOMPARE(title.text, std::optional<Rgba>(PageColor::selectedBlue));
        QCOMPARE(title.background, std::optional<Rgba>(PageColor::deselectedGrey));
        QCOMPARE(title.calls, (QStringList{"text", "background"}));
        QVERIFY(!portPopup.enabled && !baudPopup.enabled && !deviceTypePopup.enabled && !testButton.enabled);
        QCOMPARE(defaults().string("MAIN_INTERFACE"), std::optional<QString>("TCP"));
    }

    // ---- requests from the POS

    void printRequestIsWrittenInCodePage949() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        auto c = makeController(manager);
        c->viewDidLoad();
        post(request("print", QStringLiteral("영수증 테스트\n").toUtf8()));
        const QByteArray expected = QByteArray::fromHex("bfb5bcf6c1f520c5d7bdbac6ae0a");
        QVERIFY(terminal.waitForReceived(expected.size(), 2000));
        nothingFollows(terminal, expected);
    }

    void otherRequestTypesWriteTheDataUnchanged_data() {
        QTest::addColumn<QVariant>("requestType");
        QTest::newRow("payment") << QVariant("payment");
        QTest::newRow("empty") << QVariant("");
        QTest::newRow("PRINT in capitals") << QVariant("PRINT");
        QTest::newRow("kitchenPrint") << QVariant("kitchenPrint");
        QTest::newRow("Korean") << QVariant(QStringLiteral("결제"));
    }
    void otherRequestTypesWriteTheDataUnchanged() {
        QFETCH(QVariant, requestType);
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        auto c = makeController(manager);
        c->viewDidLoad();
        post(request(requestType, allByteValues()));
        QVERIFY(terminal.waitForReceived(256, 2000));
        nothingFollows(terminal, allByteValues());
    }

    void emptyDataWritesNothing() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        auto c = makeController(manager);
        c->viewDidLoad();
        post(request("payment", QByteArray()));
        post(request("payment", "after"));
        QVERIFY(terminal.waitForReceived(5, 2000));
        QCOMPARE(terminal.received(), QByteArray("after"));
    }

    void requestsWithoutAPortAreDropped() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        auto c = makeController(manager); // no USB_PORT stored
        c->viewDidLoad();
        post(request("payment", "PAY"));
        post(request("print", "PRINT"));
        c->connectionTestClicked();
        keepRunningFor(200);
        QCOMPARE(terminal.received(), QByteArray());
        QVERIFY(responses.isEmpty());
    }

    void testPrintWritesItsTextThenTheCut() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        auto c = makeController(manager);
        c->viewDidLoad();
        c->connectionTestClicked();
        const QByteArray expected =
            *cp949::encode(QStringLiteral("韓子韓子韓子韓子 문자\n\n\n")) + "\x1b\x69\x0a";
        QCOMPARE(expected.toHex(), QByteArray("f9dbedadf9dbedadf9dbedadf9dbedad20b9aec0da0a0a0a1b690a"));
        QVERIFY(terminal.waitForReceived(expected.size(), 2000));
        nothingFollows(terminal, expected);
    }

    // ---- answers from the terminal

    void answerInOneChunkReachesThePos() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        defaults().setValue("MAIN_INTERFACE", "USB");
        auto c = makeController(manager);
        c->viewDidLoad();
        terminal.write(ts132n("ABC"));
        QVERIFY(waitUntil([&] { return responses.size() == 1; }, 2000));
        QCOMPARE(responses[0], (TerminalAnswer{"ABC", "TS-132N"}));
        QVERIFY(c->combinedATransactionData().isEmpty());
    }

    void answerSplitAcrossThreeChunks() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        defaults().setValue("MAIN_INTERFACE", "USB");
        auto c = makeController(manager);
        c->viewDidLoad();
        const QByteArray answer = ts132n("ABC");
        // Each piece is seen by the channel before the next is written, so they really
        // arrive as three chunks.
        terminal.write(answer.left(4));
        QVERIFY(waitUntil([&] { return c->combinedATransactionData() == answer.left(4); }, 2000));
        terminal.write(answer.mid(4, 4));
        QVERIFY(waitUntil([&] { return c->combinedATransactionData() == answer.left(8); }, 2000));
        QVERIFY(responses.isEmpty());
        terminal.write(answer.mid(8));
        QVERIFY(waitUntil([&] { return responses.size() == 1; }, 2000));
        QCOMPARE(responses[0].text, QStringLiteral("ABC"));
        // A second answer behind it is given next: nothing came of the first one in between.
        terminal.write(ts132n("PROBE"));
        QVERIFY(waitUntil([&] { return responses.size() >= 2; }, 2000));
        QCOMPARE(responses.size(), 2);
        QCOMPARE(responses[1].text, QStringLiteral("PROBE"));
    }

    void etxAndCheckByteInSeparateChunks() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        defaults().setValue("MAIN_INTERFACE", "USB");
        auto c = makeController(manager);
        c->viewDidLoad();
        terminal.write(ts132n("ABC"));
        QVERIFY(waitUntil([&] { return responses.size() == 1; }, 2000));
        terminal.write("K"); // the check byte, late
        QVERIFY(waitUntil([&] { return c->combinedATransactionData() == "K"; }, 2000));
        QCOMPARE(responses[0].text, QStringLiteral("ABC"));
        // The next answer starts with STX and drops the lone check byte.
        terminal.write(ts132n("DEF"));
        QVERIFY(waitUntil([&] { return responses.size() == 2; }, 2000));
        QCOMPARE(responses[1].text, QStringLiteral("DEF"));
    }

    void answerThatIsNotCodePage949IsDropped() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        defaults().setValue("MAIN_INTERFACE", "USB");
        auto c = makeController(manager);
        c->viewDidLoad();
        const QByteArray bad = ts132n(QByteArray::fromHex("ff80ff"));
        terminal.write(bad.left(5));
        QVERIFY(waitUntil([&] { return c->combinedATransactionData() == bad.left(5); }, 2000));
        terminal.write(bad.mid(5));
        QVERIFY(waitUntil([&] { return c->combinedATransactionData().isEmpty(); }, 2000));
        QVERIFY(responses.isEmpty());
        // The next good answer goes through as usual.
        terminal.write(ts132n(QByteArray::fromHex("bdc2c0ce")));
        QVERIFY(waitUntil([&] { return responses.size() == 1; }, 2000));
        QCOMPARE(responses[0].text, QStringLiteral("승인"));
        QVERIFY(c->combinedATransactionData().isEmpty());
    }

    void answerWhileTcpIsActiveChangesNothing() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        defaults().setValue("MAIN_INTERFACE", "TCP");
        auto c = makeController(manager);
        c->viewDidLoad();
        terminal.write(ts132n("ABC"));
        keepRunningFor(300);
        QVERIFY(responses.isEmpty());
        QVERIFY(c->combinedATransactionData().isEmpty());
    }

    // ---- hot-plug

    void unplugClosesAndClearsThePortAndReplugRestoresWritingWithinTwoSeconds() {
        auto terminal = std::make_unique<devsim::PseudoTerminal>();
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(*terminal));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        auto c = makeController(manager);
        c->viewDidLoad();
        const auto first = c->serialPort();
        QVERIFY(first && first->isOpen());

        // Pulled out: the terminal goes, and so does its name.
        terminal.reset();
        link.unplug();
        QVERIFY(waitUntil([&] { return !c->serialPort(); }, 2000));
        QVERIFY(!first->isOpen());
        QVERIFY(first->delegate() == nullptr);
        QVERIFY(waitUntil([&] { return portPopup.items.isEmpty(); }, 2000));
        post(request("payment", "lost")); // nowhere to go, and no harm
        post(request("print", "lost"));

        // Plugged back in, as another device under the same name.
        terminal = std::make_unique<devsim::PseudoTerminal>();
        QElapsedTimer clock;
        clock.start();
        QVERIFY(link.plug(*terminal));
        QVERIFY(waitUntil([&] { return c->serialPort() && c->serialPort()->isOpen(); }, 2000));
        post(request("payment", "again"));
        QVERIFY(terminal->waitForReceived(5, 2000 - clock.elapsed()));
        qInfo("writing restored %lld ms after the replug", clock.elapsed());
        QCOMPARE(terminal->received(), QByteArray("again"));
        QVERIFY(c->serialPort() != first);
    }

    void unplugInTheMiddleOfAnAnswer() {
        auto terminal = std::make_unique<devsim::PseudoTerminal>();
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(*terminal));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        defaults().setValue("MAIN_INTERFACE", "USB");
        auto c = makeController(manager);
        c->viewDidLoad();
        const QByteArray answer = ts132n("ABC");
        terminal->write(answer.left(6));
        QVERIFY(waitUntil([&] { return c->combinedATransactionData() == answer.left(6); }, 2000));
        terminal.reset(); // the cable goes mid-answer; the link stays
        QVERIFY(waitUntil([&] { return !c->serialPort(); }, 2000));
        // The partial answer stays where it was, and the POS hears nothing.
        QCOMPARE(c->combinedATransactionData(), answer.left(6));
        QVERIFY(responses.isEmpty());

        terminal = std::make_unique<devsim::PseudoTerminal>();
        QVERIFY(link.plug(*terminal));
        QVERIFY(waitUntil([&] { return c->serialPort() && c->serialPort()->isOpen(); }, 2000));
        QCOMPARE(c->combinedATransactionData(), answer.left(6)); // reopening does not empty it
        terminal->write(ts132n("XYZ"));
        QVERIFY(waitUntil([&] { return responses.size() == 1; }, 2000));
        QCOMPARE(responses[0].text, QStringLiteral("XYZ"));
    }

    void anotherPortComingOrGoingReopensTheStoredOne() {
        devsim::PseudoTerminal mine, other;
        devsim::PortLink myLink(path("mine")), otherLink(path("other"));
        QVERIFY(myLink.plug(mine));
        SerialPortManager manager(envOnly({otherLink.path(), myLink.path()}));
        defaults().setValue("USB_PORT", myLink.path());
        auto c = makeController(manager);
        c->viewDidLoad();
        const auto port = c->serialPort();
        int opens = 0;
        connect(port.get(), &SerialPort::didOpen, this, [&] { ++opens; });
        QVERIFY(otherLink.plug(other));
        QVERIFY(waitUntil([&] { return portPopup.items.size() == 2; }, 2000));
        QCOMPARE(portPopup.items, (QStringList{otherLink.path(), myLink.path()}));
        QCOMPARE(portPopup.selected, 1);
        QVERIFY(c->serialPort() == port);
        QVERIFY(port->isOpen());
        QCOMPARE(opens, 1); // the list was reloaded, and the stored port closed and opened again
        post(request("payment", "still"));
        QVERIFY(mine.waitForReceived(5, 2000));
    }

    void destroyingTheControllerClosesItsPort() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        auto c = makeController(manager);
        c->viewDidLoad();
        const auto port = c->serialPort();
        c.reset();
        QVERIFY(!port->isOpen());
        QVERIFY(port->delegate() == nullptr);
    }

    // ---- deliberate stops

    void requestsThatCannotBeServedStop_data() {
        QTest::addColumn<QVariant>("requestType");
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<bool>("withPort");
        QTest::addColumn<QString>("reason");
        QTest::newRow("requesttype a number") << QVariant(5) << QByteArray("A") << false << "requesttype";
        QTest::newRow("requesttype null")
            << QVariant::fromValue(nullptr) << QByteArray("A") << false << "requesttype";
        QTest::newRow("msg from the POS") << QVariant("msg") << QByteArray() << false << "msg";
        QTest::newRow("print not UTF-8, with a port")
            << QVariant("print") << QByteArray("\xff\xfe") << true << "UTF-8";
        QTest::newRow("print cut inside its last character, with a port")
            << QVariant("print") << QStringLiteral("영수증").toUtf8().chopped(1) << true << "UTF-8";
        QTest::newRow("print without a code page 949 form, with a port")
            << QVariant("print") << QStringLiteral("😀").toUtf8() << true << "949";
    }
    void requestsThatCannotBeServedStop() {
        QFETCH(QVariant, requestType);
        QFETCH(QByteArray, data);
        QFETCH(bool, withPort);
        QFETCH(QString, reason);
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        if (withPort)
            defaults().setValue("USB_PORT", link.path());
        auto c = makeController(manager);
        c->viewDidLoad();
        QCOMPARE(bool(c->serialPort()), withPort);
        expectStop([&] { post(request(requestType, data)); }, reason.toUtf8().constData());
    }

    void requestsThatOnlyMatterWithAPortDoNotStopWithoutOne_data() {
        QTest::addColumn<QString>("requestType");
        QTest::addColumn<QByteArray>("data");
        QTest::newRow("payment without data") << "payment" << QByteArray();
        QTest::newRow("print not UTF-8") << "print" << QByteArray("\xff\xfe");
        QTest::newRow("print with an emoji") << "print" << QStringLiteral("😀").toUtf8();
    }
    void requestsThatOnlyMatterWithAPortDoNotStopWithoutOne() {
        QFETCH(QString, requestType);
        QFETCH(QByteArray, data);
        SerialPortManager manager(envOnly({}));
        auto c = makeController(manager);
        c->viewDidLoad();
        expectNoStop([&] { post(request(requestType, data)); });
    }

    void choosingAPortThatLeftTheListStops() {
        SerialPortManager manager(envOnly({}));
        auto c = makeController(manager);
        c->viewDidLoad();
        portPopup.items = {"/gone"};
        portPopup.selected = 0;
        expectStop([&] { c->portChanged(); }, "no longer in the list");
    }

    void aBaudTitleThatIsNotANumberStops() {
        devsim::PseudoTerminal terminal;
        devsim::PortLink link(path("term"));
        QVERIFY(link.plug(terminal));
        SerialPortManager manager(envOnly({link.path()}));
        defaults().setValue("USB_PORT", link.path());
        auto c = makeController(manager);
        c->viewDidLoad();
        baudPopup.items = {"fast"};
        baudPopup.selected = 0;
        expectStop([&] { c->baudrateChanged(); }, "baud rate");
    }
};

QTEST_GUILESS_MAIN(UsbViewControllerTest)
#include "tst_usbviewcontroller.moc"
