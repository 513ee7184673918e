#include "vendorsenders.h"

#include "cp949.h"
#include "fatal.h"
#include "ipv4rule.h"
#include "log.h"
#include "notificationcenter.h"
#include "notificationnames.h"
#include "tcpclient.h"
#include "terminalresponse.h"
#include "userdefaults.h"

#include <QCoreApplication>
#include <QHostAddress>

namespace {

std::optional<QHostAddress> terminalAddress() {
    const std::optional<QString> ip = UserDefaults::standard().string(QStringLiteral("TCP_IP"));
    if (!ip || !matchesIPv4Rule(*ip))
        return std::nullopt;
    return QHostAddress(*ip);
}

void postAnswer(const QByteArray &bytes, const QString &deviceName) {
    const std::optional<QString> text = cp949::decode(bytes);
    if (!text) {
        logLine(QStringLiteral("euc failed"));
        return;
    }
    NotificationCenter::defaultCenter().post(NotificationName::WEBSOCKET,
                                             terminalResponse(*text, deviceName));
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
        client->read(VendorSenders::readLimit, timings.firstReplyMs,
                     [this](const std::optional<QByteArray> &) { client->close(); });
    }
};

class KisExchange : public Exchange {
public:
    KisExchange(const QHostAddress &address, quint16 port, const QByteArray &request, const QString &kind,
                const ExchangeTimings &timings)
        : Exchange(Vendor::KIS, address, port, request, timings), kind(kind) {}

private:
    void afterSend() override {
        client->read(
            VendorSenders::readLimit, timings.firstReplyMs, [this](const std::optional<QByteArray> &) {
                const bool endsWithFirstReply = kind == QLatin1String("print") ||
                                                (request.size() > 2 && request.at(2) == VendorSenders::DLE);
                if (endsWithFirstReply) {
                    client->close();
                    return;
                }
                client->read(VendorSenders::readLimit, timings.kisAnswerMs,
                             [this](const std::optional<QByteArray> &answer) { takeAnswer(answer); });
            });
    }

    void takeAnswer(const std::optional<QByteArray> &answer) {
        if (!answer || answer->at(0) == VendorSenders::ACK) {
            // No answer, or only the terminal's acknowledgement: nothing for the POS.
            client->close();
            return;
        }
        // The answer is framed by 3 leading bytes and 1 trailing byte; an answer too short
        // to hold them means the terminal and the service disagree on the protocol.
        QByteArray result = *answer;
        if (result.size() < 3)
            fatalStop(QStringLiteral("KIS terminal answered %1 bytes, too few to cut its 3 leading bytes")
                          .arg(answer->size()));
        result.remove(0, 3);
        if (result.isEmpty())
            fatalStop(QStringLiteral("KIS terminal answered %1 bytes, nothing left to cut its last byte from")
                          .arg(answer->size()));
        result.chop(1);
        postAnswer(result, TerminalDeviceName::KIS);
        client->close();
    }

    QString kind;
};

class SmartroExchange : public Exchange {
public:
    using Exchange::Exchange;

private:
    void afterSend() override {
        client->read(VendorSenders::readLimit, timings.firstReplyMs,
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
        client->read(VendorSenders::readLimit, timings.smartroReplyMs,
                     [this](const std::optional<QByteArray> &reply) {
                         if (!reply) {
                             logLine(QStringLiteral("TIME OUT OCCURED!"));
                             client->close();
                             return;
                         }
                         const bool acknowledged = client->send(QByteArray(3, VendorSenders::ACK));
                         logLine(acknowledged ? QStringLiteral("ack success") : QStringLiteral("ack failed"));
                         if (reply->at(0) != VendorSenders::DLE) {
                             awaitReply();
                             return;
                         }
                         logLine(QStringLiteral("DLE COMES!"));
                         client->close();
                         postAnswer(*reply, TerminalDeviceName::SMARTRO);
                     });
    }
};

} // namespace

void VendorSenders::sendKICC(const QByteArray &bytes) const {
    const std::optional<QHostAddress> address = terminalAddress();
    if (!address)
        return;
    (new KiccExchange(Vendor::KICC, *address, ports.kicc, bytes, timings))->start();
}

void VendorSenders::sendKIS(const QByteArray &bytes, const QString &kind) const {
    const std::optional<QHostAddress> address = terminalAddress();
    if (!address)
        return;
    (new KisExchange(*address, ports.kis, bytes, kind, timings))->start();
}

void VendorSenders::sendSMARTRO(const QByteArray &bytes, const QString &) const {
    const std::optional<QHostAddress> address = terminalAddress();
    if (!address)
        return;
    (new SmartroExchange(Vendor::SMARTRO, *address, ports.smartro, bytes, timings))->start();
}
