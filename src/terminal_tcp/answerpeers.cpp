#include "answerpeers.h"

#include "common/log.h"

AnswerPeers::AnswerPeers(const QStringList &entries) {
    for (const QString &entry : entries) {
        if (const std::optional<Rule> rule = parse(entry))
            rules << *rule;
        else
            invalid << entry;
    }
}

std::optional<AnswerPeers::Rule> AnswerPeers::parse(const QString &entry) {
    Rule rule;
    if (entry == terminalWord) {
        rule.terminal = true;
        return rule;
    }
    if (entry.contains(u'/')) {
        const QPair<QHostAddress, int> subnet = QHostAddress::parseSubnet(entry);
        if (subnet.second < 0)
            return std::nullopt;
        rule.address = subnet.first;
        rule.prefixLength = subnet.second;
        return rule;
    }
    if (!rule.address.setAddress(entry))
        return std::nullopt;
    return rule;
}

bool AnswerPeers::isValidEntry(const QString &entry) {
    return parse(entry).has_value();
}

std::optional<AnswerPeers> AnswerPeers::fromSettings() {
    const std::optional<QStringList> entries = Settings::shared().list(Settings::Key::TerminalAnswerPeers);
    if (!entries || entries->isEmpty())
        return std::nullopt;
    return AnswerPeers(*entries);
}

bool AnswerPeers::allows(const QHostAddress &peer, const std::optional<QHostAddress> &terminal) const {
    // ::ffff:192.168.0.9 is the terminal at 192.168.0.9.
    constexpr auto sameHost = QHostAddress::ConvertV4MappedToIPv4;
    for (const Rule &rule : rules) {
        if (rule.terminal) {
            if (terminal && terminal->isEqual(peer, sameHost))
                return true;
        } else if (rule.prefixLength < 0) {
            if (rule.address.isEqual(peer, sameHost))
                return true;
        } else if (peer.isInSubnet(rule.address, rule.prefixLength)) {
            return true;
        }
    }
    return false;
}

void AnswerPeers::reportInvalidEntries() {
    const std::optional<AnswerPeers> peers = fromSettings();
    if (!peers)
        return;
    for (const QString &entry : peers->invalidEntries())
        logLine(
            singleLine(QStringLiteral("%1: \"%2\" is not an address, a CIDR range or %3: it allows no "
                                      "terminal")
                           .arg(Settings::name(Settings::Key::TerminalAnswerPeers), entry, terminalWord)));
}

bool RefusedPeers::note(const QString &peer, qint64 nowMs) {
    const auto found = lastSaid.constFind(peer);
    if (found != lastSaid.constEnd() && nowMs - *found < quietMs)
        return false;
    if (found == lastSaid.constEnd() && lastSaid.size() >= remembered) {
        lastSaid.removeIf(
            [nowMs](const QHash<QString, qint64>::iterator it) { return nowMs - it.value() >= quietMs; });
        if (lastSaid.size() >= remembered)
            return false; // too many at once to name each: the first ones have been named
    }
    lastSaid.insert(peer, nowMs);
    return true;
}
