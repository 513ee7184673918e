#pragma once

#include "common/settings.h"

#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QString>
#include <QStringList>
#include <optional>

// Who may deliver a card terminal's answer, from TERMINAL_ANSWER_PEERS. The answer
// listeners take whatever any host on the shop network sends them and hand it to the POS
// as the terminal's word, so without a list a forged approval looks exactly like a real
// one. Each entry is an address, a CIDR range (`192.168.0.0/24`), or the word `TCP_IP`:
// the terminal address in the settings when the connection comes. An entry that is none
// of these allows nothing.
class AnswerPeers {
public:
    // The entry that means the terminal: the name of the setting that holds its address.
    static inline const QString terminalWord = Settings::name(Settings::Key::TcpIp);

    explicit AnswerPeers(const QStringList &entries);

    // The list as the settings file has it now; nothing when it is unset or blank, which
    // means every peer, as without the setting.
    static std::optional<AnswerPeers> fromSettings();

    // Whether `peer` may deliver an answer while the terminal is at `terminal`.
    bool allows(const QHostAddress &peer, const std::optional<QHostAddress> &terminal) const;
    QStringList invalidEntries() const { return invalid; }
    // At start: names each entry that allows nothing, in one line each.
    static void reportInvalidEntries();
    // Whether an entry would be taken, for checking a value before it is written.
    static bool isValidEntry(const QString &entry);

private:
    struct Rule {
        bool terminal = false; // the TCP_IP setting
        QHostAddress address;
        int prefixLength = -1; // -1: this address only
    };
    static std::optional<Rule> parse(const QString &entry);

    QList<Rule> rules;
    QStringList invalid;
};

// Says which peers were refused, each address at most once a minute, and remembers only so
// many addresses at a time: a flood from many addresses costs a bounded table.
class RefusedPeers {
public:
    static constexpr qint64 quietMs = 60'000;
    static constexpr qsizetype remembered = 1024;

    // Whether a refusal of `peer` at `nowMs` (a steady clock) is to be said.
    bool note(const QString &peer, qint64 nowMs);

private:
    QHash<QString, qint64> lastSaid;
};
