#pragma once

#include <QHostAddress>
#include <QList>
#include <QString>
#include <QStringList>
#include <optional>

// The destinations kitchen orders may go to, from KITCHEN_ALLOWED_PRINTERS. The POS names
// the printer in every order, so without a list the service writes whatever a page sends to
// any address and port it likes: a list makes the shop's printers the only ones.
//
// Each entry is an address (any port), an address with a port (`192.168.0.50:9100`,
// `[fe80::1]:9100`), a CIDR range (`192.168.0.0/24`), or a host name, with or without a
// port. Host names are compared as text, without looking them up: an order naming
// `printer.local` is sent only when `printer.local` itself is listed, and an order naming
// an address never matches a host name entry. Whatever a name resolves to, now or later,
// cannot widen the list. An entry that is none of these allows nothing.
class PrinterAllowList {
public:
    explicit PrinterAllowList(const QStringList &entries);

    // The list as the settings file has it now; nothing when it is unset or has no entries,
    // which means every destination, as without the setting.
    static std::optional<PrinterAllowList> fromSettings();

    // Whether an order for `address` (as the POS wrote it) and `port` may be sent.
    bool allows(const QString &address, quint16 port) const;
    QStringList invalidEntries() const { return invalid; }

    // Checks a destination against the setting as it stands; a refused one is named in one
    // line on standard output.
    static bool permits(const QString &address, quint16 port);
    // At start: names each entry that allows nothing, in one line each.
    static void reportInvalidEntries();

private:
    struct Rule {
        enum class Kind { Address, Subnet, Name } kind = Kind::Address;
        QHostAddress address;
        int prefixLength = -1;
        QString name; // lower case
        std::optional<quint16> port;
    };
    static std::optional<Rule> parse(const QString &entry);

    QList<Rule> rules;
    QStringList invalid;
};
