#include "vendorsenders.h"

#include "common/cp949.h"
#include "common/fatal.h"
#include "common/log.h"
#include "common/settings.h"
#include "ipv4rule.h"
#include "tcpclient.h"
#include "terminalanswers.h"

#include <QCoreApplication>
#include <QHostAddress>

namespace {

void giveAnswer(const QByteArray &bytes, const QString &deviceName, const AnswerSink &sink) {
    const std::optional<QString> text = cp949::decode(bytes);
    if (!text) {
        logLine(QStringLiteral("euc failed"));
        return;
    }
    if (sink)
        sink(TerminalAnswer{*text, deviceName});
}

// One request's trip to a terminal and back. Deletes itself when its connection is closed;
// one still waiting when the application ends goes with it.
class Exchange : public QObject {
public:
    Exchange(const QString &vendor, const QHostAddress &address, quint16 port, const QByteArray &request,
             const ExchangeTimings &timings)
        : QObject(QCoreApplication::instance()), vendor(vendor), request(request), timings(timings),
          client(new TcpClient(address, port, this)) {
        connect(client, &TcpClient::finished, this, &QObject::deleteLater);
    }

    void start() {
        client->connectToTerminal(timings.connectMs, [this](const std::optional<QString> &error) {
            if (error) {
                logLine(
                    singleLine(QStringLiteral("%1 terminal %2: %3").arg(vendor, client->target(), *error)));
                client->release();
                return;
            }
            client->send(request);
            afterSend();
        });
    }

protected:
    virtual void afterSend() = 0;

    QString vendor;
    QByteArray request;
    ExchangeTimings timings;
    TcpClient *client;
};

class KiccExchange : public Exchange {
public:
    using Exchange::Exchange;

private:
    void afterSend() override {
        // Whatever the terminal says here is only its receipt of the request.
        client->read(VendorSenders::readLimit, timings.firstReplyMs, TerminalAnswers::firstReplyEnd,
                     [this](const std::optional<QByteArray> &) { client->close(); });
    }
};

class KisExchange : public Exchange {
public:
    KisExchange(const QHostAddress &address, quint16 port, const QByteArray &request, const QString &kind,
                const ExchangeTimings &timings, AnswerSink sink)
        : Exchange(Vendor::KIS, address, port, request, timings), kind(kind), sink(std::move(sink)) {}

private:
    void afterSend() override {
        // A fast terminal's acknowledgement and result can come in one piece: the first
        // reply is then the ACK alone, and the result's read starts with the rest.
        client->read(VendorSenders::readLimit, timings.firstReplyMs, TerminalAnswers::firstReplyEnd,
                     [this](const std::optional<QByteArray> &) {
                         if (TerminalAnswers::kisEndsWithFirstReply(request, kind)) {
                             client->close();
                             return;
                         }
                         client->read(
                             VendorSenders::readLimit, timings.kisAnswerMs, TerminalAnswers::kisAnswerEnd,
                             [this](const std::optional<QByteArray> &answer) { takeAnswer(answer); });
                     });
    }

    void takeAnswer(const std::optional<QByteArray> &answer) {
        const TerminalAnswers::KisAnswer result = TerminalAnswers::readKisAnswer(answer);
        switch (result.kind) {
        case TerminalAnswers::KisAnswer::Kind::Nothing:
            break; // no answer, or only the terminal's acknowledgement: nothing for the POS
        case TerminalAnswers::KisAnswer::Kind::TooShort:
            // The answer is framed by 3 leading bytes and 1 trailing byte; one too short to
            // hold them means the terminal and the service disagree on the protocol.
            fatalStop(QStringLiteral("KIS terminal answered %1 bytes, too few to cut its 3 leading bytes and "
                                     "its last byte")
                          .arg(answer->size()));
        case TerminalAnswers::KisAnswer::Kind::Result:
            giveAnswer(result.text, TerminalDeviceName::KIS, sink);
            break;
        }
        client->close();
    }

    QString kind;
    AnswerSink sink;
};

class SmartroExchange : public Exchange {
public:
    SmartroExchange(const QHostAddress &address, quint16 port, const QByteArray &request,
                    const ExchangeTimings &timings, AnswerSink sink)
        : Exchange(Vendor::SMARTRO, address, port, request, timings), sink(std::move(sink)) {}

private:
    void afterSend() override {
        client->read(VendorSenders::readLimit, timings.firstReplyMs, TerminalAnswers::firstReplyEnd,
                     [this](const std::optional<QByteArray> &first) {
                         if (!first) {
                             logLine(QStringLiteral("FIRST RESPONSE NOT COMES!"));
                             client->close();
                             return;
                         }
                         awaitReply(); // the first reply is never acknowledged
                     });
    }

    void awaitReply() {
        // Each reply waits for its acknowledgement before the next, so one that comes in
        // pieces is gathered whole before it is acknowledged.
        client->read(VendorSenders::readLimit, timings.smartroReplyMs, TerminalAnswers::smartroReplyEnd,
                     [this](const std::optional<QByteArray> &reply) {
                         if (!reply) {
                             logLine(QStringLiteral("TIME OUT OCCURED!"));
                             client->close();
                             return;
                         }
                         const bool acknowledged = client->send(QByteArray(3, TerminalAnswers::ACK));
                         logLine(acknowledged ? QStringLiteral("ack success") : QStringLiteral("ack failed"));
                         if (!TerminalAnswers::isSmartroFinalReply(*reply)) {
                             awaitReply();
                             return;
                         }
                         logLine(QStringLiteral("DLE COMES!"));
                         client->close();
                         giveAnswer(*reply, TerminalDeviceName::SMARTRO, sink);
                     });
    }

    AnswerSink sink;
};

} // namespace

void VendorSenders::sendKICC(const QByteArray &bytes) const {
    const std::optional<QHostAddress> address = terminalAddress();
    if (!address)
        return;
    (new KiccExchange(Vendor::KICC, *address, ports.kicc, bytes, timings))->start();
}

void VendorSenders::sendKIS(const QByteArray &bytes, const QString &kind, const AnswerSink &sink) const {
    const std::optional<QHostAddress> address = terminalAddress();
    if (!address)
        return;
    (new KisExchange(*address, ports.kis, bytes, kind, timings, sink))->start();
}

void VendorSenders::sendSMARTRO(const QByteArray &bytes, const AnswerSink &sink) const {
    const std::optional<QHostAddress> address = terminalAddress();
    if (!address)
        return;
    (new SmartroExchange(*address, ports.smartro, bytes, timings, sink))->start();
}

std::optional<QHostAddress> VendorSenders::terminalAddress() {
    const std::optional<QString> ip = Settings::shared().string(Settings::Key::TcpIp);
    if (!ip || !matchesIPv4Rule(*ip))
        return std::nullopt;
    return QHostAddress(*ip);
}
