// The USB section of the popover as a user meets it, on Qt's offscreen platform: the
// title's colours, the popups and what choosing in them does, the test print button.
#include "common/settings.h"
#include "common/userdefaults.h"
#include "devsim/pseudoterminal.h"
#include "shell/usbpage.h"
#include "terminal_serial/serialportmanager.h"
#include "terminal_serial/usbviewcontroller.h"
#include "wait.h"

#include <QApplication>
#include <QComboBox>
#include <QPushButton>
#include <QTemporaryDir>
#include <QtTest>

namespace {

QColor color(const Rgba &c) {
    return QColor::fromRgbF(static_cast<float>(c.red), static_cast<float>(c.green),
                            static_cast<float>(c.blue), static_cast<float>(c.alpha));
}

SerialPortManager::Options envOnly(const QStringList &paths) {
    SerialPortManager::Options options;
    options.systemPorts = false;
    options.extraPaths = paths;
    return options;
}

QStringList items(const QComboBox *box) {
    QStringList titles;
    for (int i = 0; i < box->count(); ++i)
        titles << box->itemText(i);
    return titles;
}

} // namespace

class UsbPageTest : public QObject {
    Q_OBJECT
    QTemporaryDir config;
    std::unique_ptr<QTemporaryDir> dir;
    int tcpControl = 0; // times USB was announced as the active interface (only the page chooses it here)

    // Counts what the settings say to the TCP page while `page` is shown.
    void watch(UsbPage &page) {
        QObject::connect(
            &Settings::shared(), &Settings::interfaceChosen, &page.controller(),
            [this](Settings::Interface chosen) { tcpControl += chosen == Settings::Interface::Usb; });
    }

    QString path(const QString &name) const { return dir->filePath(name); }

    void expectDeselectedLook(UsbPage &page) {
        const QPalette palette = page.titleLabel()->palette();
        QCOMPARE(palette.color(QPalette::WindowText), color(PageColor::selectedBlue));
        QCOMPARE(palette.color(QPalette::Window), color(PageColor::deselectedGrey));
        QVERIFY(!page.portPopupButton()->isEnabled());
        QVERIFY(!page.baudPopupButton()->isEnabled());
        QVERIFY(!page.deviceTypePopupButton()->isEnabled());
        QVERIFY(!page.connectionTestButton()->isEnabled());
    }
    void expectSelectedLook(UsbPage &page) {
        const QPalette palette = page.titleLabel()->palette();
        QCOMPARE(palette.color(QPalette::WindowText), color(PageColor::white));
        QCOMPARE(palette.color(QPalette::Window), color(PageColor::selectedBlue));
        QVERIFY(page.titleLabel()->autoFillBackground());
        QVERIFY(page.portPopupButton()->isEnabled());
        QVERIFY(page.baudPopupButton()->isEnabled());
        QVERIFY(page.deviceTypePopupButton()->isEnabled());
        QVERIFY(page.connectionTestButton()->isEnabled());
    }

private slots:
    void initTestCase() { qputenv("XDG_CONFIG_HOME", QFile::encodeName(config.path())); }
    void init() {
        dir = std::make_unique<QTemporaryDir>();
        for (const QString &key : UserDefaults::standard().keys())
            UserDefaults::standard().remove(key);
        tcpControl = 0;
    }

    void loadedPageShowsThePortsRatesAndModels() {
        devsim::PseudoTerminal a, b;
        devsim::PortLink linkA(path("a")), linkB(path("b"));
        QVERIFY(linkA.plug(a));
        QVERIFY(linkB.plug(b));
        SerialPortManager manager(envOnly({linkA.path(), linkB.path()}));
        USBViewController usb(manager);
        UsbPage page(usb);
        watch(page);
        QCOMPARE(page.titleLabel()->text(), QStringLiteral("USB"));
        QCOMPARE(items(page.portPopupButton()), (QStringList{linkA.path(), linkB.path()}));
        QCOMPARE(items(page.baudPopupButton()), (QStringList{"9600", "38400", "57600", "115200"}));
        QCOMPARE(items(page.deviceTypePopupButton()), (QStringList{"TS-132N", "TS-167", "KIS-7430"}));
        QCOMPARE(UserDefaults::standard().string("SERIAL_DEVICE_TYPE"), std::optional<QString>("TS-132N"));
        QCOMPARE(UserDefaults::standard().string("BAUD_RATE"), std::optional<QString>("9600"));
        QVERIFY(!UserDefaults::standard().value("MAIN_INTERFACE"));
        QVERIFY(!page.controller().serialPort());
        expectDeselectedLook(page);
    }

    void clickingTheTitleSelectsUsb() {
        SerialPortManager manager(envOnly({}));
        USBViewController usb(manager);
        UsbPage page(usb);
        watch(page);
        QTest::mouseClick(page.titleLabel(), Qt::RightButton);
        QCOMPARE(tcpControl, 0);
        QTest::mouseClick(page.titleLabel(), Qt::LeftButton);
        QCOMPARE(UserDefaults::standard().string("MAIN_INTERFACE"), std::optional<QString>("USB"));
        QCOMPARE(tcpControl, 1);
        expectSelectedLook(page);
        QTest::mouseClick(page.titleLabel(), Qt::LeftButton);
        QCOMPARE(tcpControl, 2);
        expectSelectedLook(page);
    }

    void tcpTakingOverGreysItOut() {
        SerialPortManager manager(envOnly({}));
        USBViewController usb(manager);
        UsbPage page(usb);
        watch(page);
        QTest::mouseClick(page.titleLabel(), Qt::LeftButton);
        page.controller().otherInterfaceChosen();
        expectDeselectedLook(page);
    }

    void showingThePageWhileUsbIsActiveSelectsItAgain() {
        UserDefaults::standard().setValue("MAIN_INTERFACE", "USB");
        SerialPortManager manager(envOnly({}));
        USBViewController usb(manager);
        UsbPage page(usb);
        watch(page);
        QCOMPARE(tcpControl, 0); // loading is not showing
        page.show();
        QCOMPARE(tcpControl, 1);
        expectSelectedLook(page);
        page.hide();
        page.show();
        QCOMPARE(tcpControl, 2);
    }

    void choosingInThePopupsStoresAndOpens() {
        devsim::PseudoTerminal a, b;
        devsim::PortLink linkA(path("a")), linkB(path("b"));
        QVERIFY(linkA.plug(a));
        QVERIFY(linkB.plug(b));
        SerialPortManager manager(envOnly({linkA.path(), linkB.path()}));
        USBViewController usb(manager);
        UsbPage page(usb);
        watch(page);
        QTest::mouseClick(page.titleLabel(), Qt::LeftButton);

        QTest::keyClick(page.baudPopupButton(), Qt::Key_Down); // 38400
        QCOMPARE(UserDefaults::standard().string("BAUD_RATE"), std::optional<QString>("38400"));
        QTest::keyClick(page.portPopupButton(), Qt::Key_Down); // the second port
        QCOMPARE(UserDefaults::standard().string("USB_PORT"), std::optional<QString>(linkB.path()));
        QVERIFY(page.controller().serialPort()->isOpen());
        QCOMPARE(b.outputSpeed(), speed_t(B38400));
        QTest::keyClick(page.deviceTypePopupButton(), Qt::Key_End); // KIS-7430
        QCOMPARE(UserDefaults::standard().string("SERIAL_DEVICE_TYPE"), std::optional<QString>("KIS-7430"));

        QTest::mouseClick(page.connectionTestButton(), Qt::LeftButton);
        QVERIFY(b.waitForReceived(27, 2000));
        QCOMPARE(b.received().right(3), QByteArray("\x1b\x69\x0a"));
        QCOMPARE(a.received(), QByteArray());
    }

    void listChangesDoNotCountAsChoices() {
        devsim::PseudoTerminal a, b;
        devsim::PortLink linkA(path("a")), linkB(path("b"));
        QVERIFY(linkB.plug(b));
        SerialPortManager manager(envOnly({linkA.path(), linkB.path()}));
        UserDefaults::standard().setValue("USB_PORT", linkB.path());
        USBViewController usb(manager);
        UsbPage page(usb);
        watch(page);
        QCOMPARE(page.portPopupButton()->currentText(), linkB.path());
        QVERIFY(linkA.plug(a)); // appears in front of the chosen one
        QVERIFY(waitUntil([&] { return page.portPopupButton()->count() == 2; }, 2000));
        QCOMPARE(page.portPopupButton()->currentText(), linkB.path());
        QCOMPARE(UserDefaults::standard().string("USB_PORT"), std::optional<QString>(linkB.path()));
        QVERIFY(page.controller().serialPort()->isOpen());
        QCOMPARE(page.controller().serialPort()->path(), linkB.path());
    }
};

QTEST_MAIN(UsbPageTest)
#include "tst_usbpage.moc"
