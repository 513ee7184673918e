#include "printerallowlist.h"

#include "common/log.h"
#include "common/settings.h"

namespace {

std::optional<quint16> parsePort(const QString &text) {
    if (text.isEmpty() || text.size() > 5)
        return std::nullopt;
    for (const QChar c : text)
        if (c < u'0' || c > u'9')
            return std::nullopt;
    const uint value = text.toUInt();
    if (value > 65535)
        return std::nullopt;
    return static_cast<quint16>(value);
}

// What DNS allows in a name, plus the underscore some shops' routers hand out.
bool isHostName(const QString &text) {
    if (text.isEmpty() || text.startsWith(u'.') || text.startsWith(u'-'))
        return false;
    for (const QChar c : text)
        if (!(c.isLetterOrNumber() && c.unicode() < 128) && c != u'.' && c != u'-' && c != u'_')
            return false;
    return true;
}

// ::ffff:192.168.0.50 reaches the same printer as 192.168.0.50, and is judged as that.
QHostAddress plain(const QHostAddress &address) {
    if (address.protocol() == QAbstractSocket::IPv6Protocol) {
        bool mapped = false;
        const quint32 v4 = address.toIPv4Address(&mapped);
        if (mapped)
            return QHostAddress(v4);
    }
    return address;
}

// The address the socket would connect to, parsed exactly as QAbstractSocket::connectToHost
// parses it: text that is an address there is an address here, and everything else is a
// name that it would look up.
std::optional<QHostAddress> literalAddress(const QString &text) {
    QHostAddress address;
    if (!address.setAddress(text))
        return std::nullopt;
    return plain(address);
}

} // namespace

PrinterAllowList::PrinterAllowList(const QStringList &entries) {
    for (const QString &entry : entries) {
        if (const std::optional<Rule> rule = parse(entry))
            rules << *rule;
        else
            invalid << entry;
    }
}

std::optional<PrinterAllowList::Rule> PrinterAllowList::parse(const QString &entry) {
    Rule rule;
    if (entry.contains(u'/')) {
        const QPair<QHostAddress, int> subnet = QHostAddress::parseSubnet(entry);
        if (subnet.second < 0)
            return std::nullopt;
        rule.kind = Rule::Kind::Subnet;
        rule.address = subnet.first;
        rule.prefixLength = subnet.second;
        return rule;
    }
    if (entry.startsWith(u'[')) { // [IPv6] or [IPv6]:port
        const qsizetype close = entry.indexOf(u']');
        if (close < 0)
            return std::nullopt;
        const std::optional<QHostAddress> address = literalAddress(entry.mid(1, close - 1));
        if (!address || entry.mid(1, close - 1).isEmpty())
            return std::nullopt;
        rule.address = *address;
        const QString rest = entry.mid(close + 1);
        if (rest.isEmpty())
            return rule;
        if (!rest.startsWith(u':') || !(rule.port = parsePort(rest.mid(1))))
            return std::nullopt;
        return rule;
    }
    if (const std::optional<QHostAddress> address = literalAddress(entry)) {
        rule.address = *address; // an IPv4 or a bare IPv6 address: every port
        return rule;
    }
    QString host = entry;
    if (entry.count(u':') == 1) {
        const qsizetype colon = entry.indexOf(u':');
        host = entry.left(colon);
        if (!(rule.port = parsePort(entry.mid(colon + 1))))
            return std::nullopt;
    }
    if (const std::optional<QHostAddress> address = literalAddress(host)) {
        rule.address = *address;
        return rule;
    }
    if (!isHostName(host))
        return std::nullopt;
    rule.kind = Rule::Kind::Name;
    rule.name = host.toLower();
    return rule;
}

std::optional<PrinterAllowList> PrinterAllowList::fromSettings() {
    const std::optional<QStringList> entries = Settings::shared().list(Settings::Key::KitchenAllowedPrinters);
    if (!entries || entries->isEmpty())
        return std::nullopt;
    return PrinterAllowList(*entries);
}

bool PrinterAllowList::allows(const QString &address, quint16 port) const {
    const std::optional<QHostAddress> destination = literalAddress(address);
    const QString name = address.toLower();
    for (const Rule &rule : rules) {
        if (rule.port && *rule.port != port)
            continue;
        switch (rule.kind) {
        case Rule::Kind::Address:
            if (destination && *destination == rule.address)
                return true;
            break;
        case Rule::Kind::Subnet:
            if (destination && destination->isInSubnet(rule.address, rule.prefixLength))
                return true;
            break;
        case Rule::Kind::Name:
            if (!destination && name == rule.name)
                return true;
            break;
        }
    }
    return false;
}

bool PrinterAllowList::permits(const QString &address, quint16 port) {
    const std::optional<PrinterAllowList> list = fromSettings();
    if (!list || list->allows(address, port))
        return true;
    logLine(singleLine(QStringLiteral("kitchen printer %1:%2: not in %3, the order was not sent")
                           .arg(address)
                           .arg(port)
                           .arg(Settings::name(Settings::Key::KitchenAllowedPrinters))));
    return false;
}

void PrinterAllowList::reportInvalidEntries() {
    const std::optional<PrinterAllowList> list = fromSettings();
    if (!list)
        return;
    for (const QString &entry : list->invalidEntries())
        logLine(singleLine(QStringLiteral("%1: \"%2\" is not an address, address:port, CIDR range or host "
                                          "name: it allows no printer")
                               .arg(Settings::name(Settings::Key::KitchenAllowedPrinters), entry)));
}
