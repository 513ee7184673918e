#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QString>
#include <functional>
#include <optional>

#include "common/terminalchannel.h"

// The three card-terminal vendors, in the order the settings page lists them.
namespace Vendor {
inline const QString KICC = QStringLiteral("KICC");
inline const QString KIS = QStringLiteral("KIS");
inline const QString SMARTRO = QStringLiteral("SMARTRO");
} // namespace Vendor

// The model names the POS sees in "devicename" for an answer from each vendor.
namespace TerminalDeviceName {
inline const QString KICC = QStringLiteral("TS-132N:TS-167");
inline const QString KIS = QStringLiteral("KIS7430");
inline const QString SMARTRO = QStringLiteral("SMT-T263");
} // namespace TerminalDeviceName

// The ports the terminals listen on. KICC and SMARTRO terminals also deliver their
// answers to the same port numbers on this machine.
struct VendorPorts {
    quint16 kicc = 13189;
    quint16 kis = 5000;
    quint16 smartro = 5501;
};

struct ExchangeTimings {
    int connectMs = 1000;
    int firstReplyMs = 1000;   // every vendor's first reply after the request
    int kisAnswerMs = 300'000; // the customer at a KIS terminal: card, PIN, signature
    int smartroReplyMs = 5000; // each further SMARTRO reply
};

// Where an answer that comes back on a request's own connection goes.
using AnswerSink = std::function<void(const TerminalAnswer &)>;

// Sends one request to the terminal at the TCP_IP setting, each over a fresh connection
// of its own, and gives `sink` the answers that come back on that connection (KIS, and
// SMARTRO's final DLE reply). A missing or malformed TCP_IP drops the request
// without a word, as the settings page never stores one. Every exchange runs on the
// event loop; these calls return at once.
class VendorSenders {
public:
    static constexpr qint64 readLimit = 10240;

    // The terminal's address as the settings have it now; nothing when TCP_IP is missing or
    // not a dotted IPv4 address.
    static std::optional<QHostAddress> terminalAddress();

    explicit VendorSenders(VendorPorts ports = {}, ExchangeTimings timings = {})
        : ports(ports), timings(timings) {}

    // Sends, then waits up to a second for anything and discards it: the answer comes
    // back on the KICC answer listener.
    void sendKICC(const QByteArray &bytes) const;
    // A print job, or a request whose byte at index 2 is DLE, ends with the terminal's
    // first reply; a payment waits up to 300 s for the answer, which is given without
    // its 3 leading bytes and its last byte.
    void sendKIS(const QByteArray &bytes, const QString &kind, const AnswerSink &sink) const;
    // Each reply after the first is acknowledged with 06 06 06; the first one that starts
    // with DLE is the answer.
    void sendSMARTRO(const QByteArray &bytes, const AnswerSink &sink) const;

private:
    VendorPorts ports;
    ExchangeTimings timings;
};
