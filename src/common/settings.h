#pragma once

#include <QList>
#include <QObject>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <optional>

// The service's settings, by name rather than by spelling: every key of the settings file,
// its default and the ways its value is read live here. The file is the service's contract
// with the shop owner, `teranocounter --set` and the README. (Two readers go by the name
// alone: the command line, which writes and prints whatever key it is given, and the serial
// answer framing, whose settings a test hands in by name.)
//
// Every read goes to the file afresh (through UserDefaults), so a `teranocounter --set` from
// another process counts from the next request on. A write made here is announced by
// `changed`; one made by another process is not, because nothing on screen follows it: the
// pages change their look when the owner clicks them, not when the file changes.
class Settings : public QObject {
    Q_OBJECT
public:
    enum class Key {
        MainInterface,           // the terminal interface requests go to: "TCP" or "USB"
        TcpDevice,               // the TCP terminal's vendor
        TcpIp,                   // the TCP terminal's IPv4 address
        UsbPort,                 // the serial terminal's port, by its description
        BaudRate,                // its line rate
        SerialDeviceType,        // its model
        WebSocketAllowedOrigins, // the pages that may reach the gateway (empty: every page)
        WebSocketPinFirstOrigin, // the first page to connect becomes the only one allowed
        WebSocketListenAll,      // the gateway listens on every address, not only loopback
        HoldUndeliveredAnswers,  // answers for a POS that was not there are kept for it
        KitchenRetryMinutes,     // how long a kitchen order waits for its printer
        KitchenAllowedPrinters,  // the printers a kitchen order may go to
        TerminalAnswerPeers,     // the hosts whose terminal answers are taken
    };
    Q_ENUM(Key)

    // The interface terminal requests go to. None: never chosen. Other: a value the service
    // does not know (a hand-edited file), whose requests are dropped.
    enum class Interface { None, Tcp, Usb, Other };
    Q_ENUM(Interface)

    static Settings &shared();

    // The key as it stands in the file, for messages and the command line.
    static QString name(Key key);
    static std::optional<Key> keyNamed(const QString &name);

    // The stored value as it was read from the file; nothing when the key is unset.
    std::optional<QVariant> value(Key key) const;
    // The stored value as text, two ways. They differ only for a value the file holds as a
    // typed @Variant (a hand edit), and each reader keeps the one it has always had:
    //  - text: as a request value is read (a whole number is its digits, a boolean 1 or 0);
    //  - string: as Qt turns a value into a string (a boolean is "true" or "false").
    std::optional<QString> text(Key key) const;
    std::optional<QString> string(Key key) const;
    // A comma-separated value as its entries, each trimmed, blanks left out.
    std::optional<QStringList> list(Key key) const;
    // A list with at least one entry.
    bool hasEntries(Key key) const;
    // A switch: on when its string is "true" in any case, spaces around it ignored; off when
    // unset or anything else, so a mistyped switch leaves the service as it was.
    bool isOn(Key key) const;
    static bool isOn(const std::optional<QVariant> &stored);
    // The text of MAIN_INTERFACE as an interface: exactly "TCP" or "USB", nothing else.
    Interface mainInterface() const;
    static Interface interfaceOf(const std::optional<QVariant> &stored);
    // The value the service writes when a page first needs the key and finds it unset, as
    // an integer or text exactly as it goes into the file; nothing for keys without one.
    static std::optional<QVariant> defaultValue(Key key);

    void set(Key key, const QVariant &value);
    // Several at once: the file is written once, with all of them or (on failure) none.
    void set(const QList<QPair<Key, QVariant>> &values);
    void remove(Key key);
    // Writes the key's default when the key is unset; says whether it wrote.
    bool fillDefault(Key key);
    // Makes TCP or USB the interface terminal requests go to. Announced every time, also
    // when it was the active one already: choosing again is still the owner's choice. The
    // choice is in the file before it is announced.
    void chooseInterface(Interface interface);

signals:
    // A key was written or removed by this process.
    void changed(Settings::Key key);
    // TCP or USB was chosen: by the owner on a page, or by the USB page shown while USB is
    // the stored choice.
    void interfaceChosen(Settings::Interface interface);

private:
    Settings() = default;
};
