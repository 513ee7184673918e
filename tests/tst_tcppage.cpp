// The TCP page as the shop owner uses it, on Qt's offscreen platform: real widgets, real
// clicks and key presses, the settings file, and a fake terminal for the test button.
#include "common/outlets.h"
#include "common/settings.h"
#include "common/userdefaults.h"
#include "devsim/scriptedterminal.h"
#include "shell/tcppage.h"
#include "terminal_tcp/tcpviewcontroller.h"
#include "wait.h"

#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTemporaryDir>
#include <QtTest>

namespace {

bool sameColour(const QColor &actual, const Rgba &expected) {
    const auto close = [](double a, double b) { return std::abs(a - b) < 0.002; };
    return close(actual.redF(), expected.red) && close(actual.greenF(), expected.green) &&
           close(actual.blueF(), expected.blue) && close(actual.alphaF(), expected.alpha);
}

} // namespace

class TcpPageTest : public QObject {
    Q_OBJECT
    QTemporaryDir config;
    std::unique_ptr<TCPViewController> channel; // what the page shows; it outlives the page
    std::unique_ptr<TcpPage> page;

    void loadPage() {
        channel = std::make_unique<TCPViewController>();
        page = std::make_unique<TcpPage>(*channel);
        page->controller().localAddressLookup = [] { return QStringList{"127.0.0.1"}; };
        page->controller().kiccAnswerPort = 0;
        page->controller().smartroAnswerPort = 0;
        page->load();
        page->appear();
    }

private slots:
    void initTestCase() { qputenv("XDG_CONFIG_HOME", QFile::encodeName(config.path())); }

    void init() {
        for (const QString &key : UserDefaults::standard().keys())
            UserDefaults::standard().remove(key);
    }

    void cleanup() {
        page.reset();
        channel.reset();
    }

    void pageShowsTheVendorsInOrderAndTheListenersStarted() {
        UserDefaults::standard().setValue("TCP_IP", "192.168.0.10");
        loadPage();
        QCOMPARE(page->titleLabel()->text(), QStringLiteral("TCP"));
        QStringList items;
        for (int i = 0; i < page->devicePopup()->count(); ++i)
            items << page->devicePopup()->itemText(i);
        QCOMPARE(items, (QStringList{"KICC", "KIS", "SMARTRO"}));
        QCOMPARE(page->devicePopup()->currentText(), QStringLiteral("KICC"));
        QCOMPARE(page->ipField()->text(), QStringLiteral("192.168.0.10"));
        for (QLabel *status : {page->kiccStatusLabel(), page->smartroStatusLabel()}) {
            QCOMPARE(status->text(), QStringLiteral("서비스 시작 완료"));
            QCOMPARE(status->palette().color(QPalette::WindowText), QColor(Qt::green));
        }
    }

    void clickingTheTitleSelectsTcp() {
        UserDefaults::standard().setValue("MAIN_INTERFACE", "USB");
        loadPage();
        int toUsb = 0;
        QObject::connect(&Settings::shared(), &Settings::interfaceChosen, &page->controller(),
                         [&](Settings::Interface chosen) { toUsb += chosen == Settings::Interface::Tcp; });
        QTest::mouseClick(page->titleLabel(), Qt::RightButton);
        QCOMPARE(UserDefaults::standard().string("MAIN_INTERFACE"), std::optional<QString>("USB"));
        QTest::mouseClick(page->titleLabel(), Qt::LeftButton);
        QCOMPARE(UserDefaults::standard().string("MAIN_INTERFACE"), std::optional<QString>("TCP"));
        QCOMPARE(toUsb, 1);
        const QPalette palette = page->titleLabel()->palette();
        QVERIFY(page->titleLabel()->autoFillBackground());
        QVERIFY(sameColour(palette.color(QPalette::Window), PageColor::selectedBlue));
        QVERIFY(sameColour(palette.color(QPalette::WindowText), PageColor::white));
        QVERIFY(page->ipField()->isEnabled());
        QVERIFY(!page->ipField()->isReadOnly());
    }

    void usbTakingOverGreysTheTitleAndLocksTheAddress() {
        UserDefaults::standard().setValue("MAIN_INTERFACE", "TCP");
        loadPage();
        QVERIFY(sameColour(page->titleLabel()->palette().color(QPalette::Window), PageColor::selectedBlue));
        page->controller().otherInterfaceChosen();
        const QPalette palette = page->titleLabel()->palette();
        QVERIFY(sameColour(palette.color(QPalette::Window), PageColor::deselectedGrey));
        QVERIFY(sameColour(palette.color(QPalette::WindowText), PageColor::selectedBlue));
        QVERIFY(!page->ipField()->isEnabled());
        QVERIFY(page->ipField()->isReadOnly());
    }

    void typedAddressIsStoredOnEnterWhenValid() {
        loadPage();
        page->ipField()->clear();
        QTest::keyClicks(page->ipField(), "192.168.0.01");
        QTest::keyClick(page->ipField(), Qt::Key_Return);
        QCOMPARE(UserDefaults::standard().value("TCP_IP"), std::nullopt);
        page->ipField()->clear();
        QTest::keyClicks(page->ipField(), "10.0.0.7");
        QCOMPARE(UserDefaults::standard().value("TCP_IP"), std::nullopt); // not before Enter
        QTest::keyClick(page->ipField(), Qt::Key_Enter);
        QCOMPARE(UserDefaults::standard().string("TCP_IP"), std::optional<QString>("10.0.0.7"));
    }

    void choosingAVendorStoresIt() {
        loadPage();
        QTest::keyClick(page->devicePopup(), Qt::Key_Down);
        QCOMPARE(UserDefaults::standard().string("TCP_DEVICE"), std::optional<QString>("KIS"));
        QTest::keyClick(page->devicePopup(), Qt::Key_Down);
        QCOMPARE(UserDefaults::standard().string("TCP_DEVICE"), std::optional<QString>("SMARTRO"));
    }

    void testButtonSendsTheTestPrint() {
        devsim::ScriptedTerminal smartro;
        QVERIFY(smartro.listen());
        UserDefaults::standard().setValue("TCP_DEVICE", "SMARTRO");
        UserDefaults::standard().setValue("TCP_IP", "127.0.0.1");
        loadPage();
        QCOMPARE(page->devicePopup()->currentText(), QStringLiteral("SMARTRO"));
        page->controller().senders = VendorSenders({1, 1, smartro.port()});
        QTest::mouseClick(page->testButton(), Qt::LeftButton);
        QVERIFY(waitUntil(
            [&] {
                return smartro.connections().size() == 1 &&
                       smartro.connections().first().received == "SMARTRO test print";
            },
            3000));
    }
};

QTEST_MAIN(TcpPageTest)
#include "tst_tcppage.moc"
