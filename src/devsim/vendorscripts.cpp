#include "vendorscripts.h"

namespace devsim {

namespace {

constexpr char ACK = 0x06;
constexpr char DLE = 0x10;
constexpr char STX = 0x02;
constexpr char ETX = 0x03;

} // namespace

QString defaultAnswer() {
    return QStringLiteral("정상승인 금액 15000원 승인번호 30012345");
}

QByteArray kisResultFrame(const QByteArray &answer) {
    return STX + QByteArray("00") + answer + ETX;
}

QByteArray listenerFrame(const QByteArray &answer) {
    return STX + QByteArray("0000") + answer + ETX + QByteArray("00");
}

QList<ScriptedTerminal::Step> kisExchange(const QByteArray &answer, int delayMs) {
    using T = ScriptedTerminal;
    // The result must not reach the service together with the acknowledgement: the service
    // reads them as two replies.
    return {T::awaitRequest(), T::reply(QByteArray(1, ACK)),
            T::reply(kisResultFrame(answer), qMax(delayMs, 20))};
}

QList<ScriptedTerminal::Step> smartroExchange(const QByteArray &answer, int delayMs) {
    using T = ScriptedTerminal;
    const QByteArray acknowledged(3, ACK);
    return {T::awaitRequest(),
            T::reply(QByteArray(1, ACK)),
            T::reply(STX + QByteArray("CARD READ") + ETX, 100),
            T::awaitMore(acknowledged.size()),
            T::reply(DLE + answer, qMax(delayMs, 0)),
            T::awaitMore(acknowledged.size())};
}

QList<ScriptedTerminal::Step> kiccExchange(const QByteArray &answer, int delayMs, const QHostAddress &replyTo,
                                           quint16 replyPort) {
    using T = ScriptedTerminal;
    return {T::awaitRequest(), T::reply(QByteArray(1, ACK)),
            T::deliver(replyTo, replyPort, listenerFrame(answer), qMax(delayMs, 0))};
}

} // namespace devsim
