// The settings as the service reads and writes them, against a real settings file in a
// temporary folder: the names the file and the README use, how each kind of value is read,
// the defaults a page writes, and what a write announces.
#include "common/settings.h"
#include "common/userdefaults.h"

#include <QFile>
#include <QMetaEnum>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using Key = Settings::Key;
using Interface = Settings::Interface;

class SettingsTest : public QObject {
    Q_OBJECT
    QTemporaryDir config;

    static QByteArray fileText() {
        QFile file(UserDefaults::standard().fileName());
        if (!file.open(QIODevice::ReadOnly))
            return {};
        return file.readAll();
    }

private slots:
    void initTestCase() {
        QVERIFY(config.isValid());
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(config.path()));
    }

    void init() {
        for (const QString &name : UserDefaults::standard().keys())
            UserDefaults::standard().remove(name);
    }

    // The names are the file's, the README's and `teranocounter --set`'s: a renamed key
    // would silently drop a shop's setting.
    void everyKeyHasItsDocumentedName() {
        const QMap<Key, QString> documented{
            {Key::MainInterface, "MAIN_INTERFACE"},
            {Key::TcpDevice, "TCP_DEVICE"},
            {Key::TcpIp, "TCP_IP"},
            {Key::UsbPort, "USB_PORT"},
            {Key::BaudRate, "BAUD_RATE"},
            {Key::SerialDeviceType, "SERIAL_DEVICE_TYPE"},
            {Key::WebSocketAllowedOrigins, "WEBSOCKET_ALLOWED_ORIGINS"},
            {Key::WebSocketPinFirstOrigin, "WEBSOCKET_PIN_FIRST_ORIGIN"},
            {Key::WebSocketListenAll, "WEBSOCKET_LISTEN_ALL"},
            {Key::HoldUndeliveredAnswers, "HOLD_UNDELIVERED_ANSWERS"},
            {Key::KitchenRetryMinutes, "KITCHEN_RETRY_MINUTES"},
            {Key::KitchenAllowedPrinters, "KITCHEN_ALLOWED_PRINTERS"},
            {Key::TerminalAnswerPeers, "TERMINAL_ANSWER_PEERS"},
        };
        const QMetaEnum keys = QMetaEnum::fromType<Key>();
        QCOMPARE(keys.keyCount(), documented.size());
        for (int i = 0; i < keys.keyCount(); ++i) {
            const auto key = Key(keys.value(i));
            QCOMPARE(Settings::name(key), documented.value(key));
            QCOMPARE(Settings::keyNamed(Settings::name(key)), std::optional<Key>(key));
        }
        QCOMPARE(Settings::keyNamed("main_interface"), std::nullopt);
        QCOMPARE(Settings::keyNamed("NOT_A_SETTING"), std::nullopt);
    }

    void aWriteIsInTheFileAndReadBackAsText() {
        Settings &settings = Settings::shared();
        QCOMPARE(settings.value(Key::TcpIp), std::nullopt);
        QCOMPARE(settings.text(Key::TcpIp), std::nullopt);
        settings.set(Key::TcpIp, QStringLiteral("192.168.0.9"));
        QVERIFY2(fileText().contains("TCP_IP=192.168.0.9"), fileText().constData());
        QCOMPARE(settings.text(Key::TcpIp), std::optional<QString>("192.168.0.9"));
        // Another process's write (`teranocounter --set`) counts at the next read.
        UserDefaults::standard().setValue("TCP_IP", "192.168.0.10");
        QCOMPARE(settings.text(Key::TcpIp), std::optional<QString>("192.168.0.10"));
        settings.remove(Key::TcpIp);
        QVERIFY(!fileText().contains("TCP_IP"));
        QCOMPARE(settings.text(Key::TcpIp), std::nullopt);
    }

    void theInterfaceIsExactlyTcpOrUsb_data() {
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<Interface>("interface");
        QTest::newRow("TCP") << QVariant("TCP") << Interface::Tcp;
        QTest::newRow("USB") << QVariant("USB") << Interface::Usb;
        QTest::newRow("lower case") << QVariant("usb") << Interface::Other;
        QTest::newRow("blank around") << QVariant(" TCP") << Interface::Other;
        QTest::newRow("empty") << QVariant("") << Interface::Other;
        QTest::newRow("BT") << QVariant("BT") << Interface::Other;
    }
    void theInterfaceIsExactlyTcpOrUsb() {
        QFETCH(QVariant, stored);
        QFETCH(Interface, interface);
        QCOMPARE(Settings::interfaceOf(stored), interface);
        UserDefaults::standard().setValue("MAIN_INTERFACE", stored);
        QCOMPARE(Settings::shared().mainInterface(), interface);
    }

    void anUnsetInterfaceIsNone() {
        QCOMPARE(Settings::interfaceOf(std::nullopt), Interface::None);
        QCOMPARE(Settings::shared().mainInterface(), Interface::None);
    }

    void aSwitchIsOnOnlyForTrue_data() {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<bool>("on");
        QTest::newRow("true") << "true" << true;
        QTest::newRow("TRUE with blanks") << " TRUE " << true;
        QTest::newRow("yes") << "yes" << false;
        QTest::newRow("1") << "1" << false;
        QTest::newRow("false") << "false" << false;
    }
    void aSwitchIsOnOnlyForTrue() {
        QFETCH(QString, stored);
        QFETCH(bool, on);
        QVERIFY(!Settings::shared().isOn(Key::HoldUndeliveredAnswers));
        UserDefaults::standard().setValue("HOLD_UNDELIVERED_ANSWERS", stored);
        QCOMPARE(Settings::shared().isOn(Key::HoldUndeliveredAnswers), on);
    }

    // A switch a hand edit stored as a typed boolean reads as Qt writes a boolean: "true".
    void aTypedBooleanSwitchIsOn() {
        QVERIFY(Settings::isOn(QVariant(true)));
        QVERIFY(!Settings::isOn(QVariant(false)));
        QVERIFY(!Settings::isOn(QVariant(1)));
        QVERIFY(!Settings::isOn(std::nullopt));
    }

    void aListIsItsTrimmedEntries() {
        Settings &settings = Settings::shared();
        QCOMPARE(settings.list(Key::TerminalAnswerPeers), std::nullopt);
        QVERIFY(!settings.hasEntries(Key::TerminalAnswerPeers));
        settings.set(Key::TerminalAnswerPeers, QStringLiteral(" , "));
        QCOMPARE(settings.list(Key::TerminalAnswerPeers), std::optional<QStringList>(QStringList()));
        QVERIFY(!settings.hasEntries(Key::TerminalAnswerPeers));
        settings.set(Key::TerminalAnswerPeers, QStringLiteral("TCP_IP, 10.0.0.0/8 ,,"));
        QCOMPARE(settings.list(Key::TerminalAnswerPeers),
                 std::optional<QStringList>(QStringList{"TCP_IP", "10.0.0.0/8"}));
        QVERIFY(settings.hasEntries(Key::TerminalAnswerPeers));
        // A hand-edited file with an unquoted list reads the same.
        QFile file(UserDefaults::standard().fileName());
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write("[General]\nTERMINAL_ANSWER_PEERS=TCP_IP, 10.0.0.0/8\n");
        file.close();
        QCOMPARE(settings.list(Key::TerminalAnswerPeers),
                 std::optional<QStringList>(QStringList{"TCP_IP", "10.0.0.0/8"}));
    }

    void aDefaultIsWrittenOnlyWhenUnset() {
        Settings &settings = Settings::shared();
        QVERIFY(settings.fillDefault(Key::BaudRate));
        QVERIFY2(fileText().contains("BAUD_RATE=9600"), fileText().constData());
        QCOMPARE(settings.text(Key::BaudRate), std::optional<QString>("9600"));
        settings.set(Key::BaudRate, QStringLiteral("38400"));
        QVERIFY(!settings.fillDefault(Key::BaudRate));
        QCOMPARE(settings.text(Key::BaudRate), std::optional<QString>("38400"));

        QVERIFY(settings.fillDefault(Key::TcpDevice));
        QCOMPARE(settings.text(Key::TcpDevice), std::optional<QString>("KICC"));
        QVERIFY(settings.fillDefault(Key::SerialDeviceType));
        QCOMPARE(settings.text(Key::SerialDeviceType), std::optional<QString>("TS-132N"));
        // No default: MAIN_INTERFACE is the owner's to choose, and stays unset until then.
        QVERIFY(!settings.fillDefault(Key::MainInterface));
        QCOMPARE(settings.value(Key::MainInterface), std::nullopt);
    }

    void everyWriteIsAnnounced() {
        Settings &settings = Settings::shared();
        QSignalSpy changed(&settings, &Settings::changed);
        settings.set(Key::UsbPort, QStringLiteral("USB Serial"));
        settings.set({{Key::HoldUndeliveredAnswers, "true"}, {Key::KitchenRetryMinutes, "10"}});
        settings.remove(Key::UsbPort);
        QCOMPARE(changed.size(), 4);
        QCOMPARE(changed[0][0].value<Key>(), Key::UsbPort);
        QCOMPARE(changed[1][0].value<Key>(), Key::HoldUndeliveredAnswers);
        QCOMPARE(changed[2][0].value<Key>(), Key::KitchenRetryMinutes);
        QCOMPARE(changed[3][0].value<Key>(), Key::UsbPort);
        QVERIFY(settings.isOn(Key::HoldUndeliveredAnswers));
        QCOMPARE(settings.text(Key::KitchenRetryMinutes), std::optional<QString>("10"));
    }

    // The choice is written before it is announced, so a page that steps back reads the
    // new interface; choosing the active one again is announced too.
    void choosingAnInterfaceWritesItThenSaysSo() {
        Settings &settings = Settings::shared();
        QList<QPair<Interface, Interface>> heard; // what was announced, what was stored then
        connect(&settings, &Settings::interfaceChosen, this, [&](Interface chosen) {
            heard.append({chosen, settings.mainInterface()});
        });
        settings.chooseInterface(Interface::Tcp);
        QVERIFY2(fileText().contains("MAIN_INTERFACE=TCP"), fileText().constData());
        settings.chooseInterface(Interface::Usb);
        settings.chooseInterface(Interface::Usb);
        disconnect(&settings, &Settings::interfaceChosen, this, nullptr);
        QCOMPARE(heard, (QList<QPair<Interface, Interface>>{
                            {Interface::Tcp, Interface::Tcp},
                            {Interface::Usb, Interface::Usb},
                            {Interface::Usb, Interface::Usb},
                        }));
    }
};

QTEST_GUILESS_MAIN(SettingsTest)
#include "tst_settings.moc"
