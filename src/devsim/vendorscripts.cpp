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

QList<ScriptedTerminal::Step> kisExchange(const QByteArray &answer, int delayMs, const Pieces &pieces) {
    using T = ScriptedTerminal;
    return {T::awaitRequest(), T::reply(QByteArray(1, ACK)),
            T::reply(kisResultFrame(answer), qMax(delayMs, 0), pieces)};
}

QList<ScriptedTerminal::Step> smartroExchange(const QByteArray &answer, int delayMs, const Pieces &pieces) {
    using T = ScriptedTerminal;
    const QByteArray acknowledged(3, ACK);
    return {T::awaitRequest(),
            T::reply(QByteArray(1, ACK)),
            T::reply(STX + QByteArray("CARD READ") + ETX, 100),
            T::awaitMore(acknowledged.size()),
            T::reply(DLE + answer, qMax(delayMs, 0), pieces),
            T::awaitMore(acknowledged.size())};
}

QList<ScriptedTerminal::Step> kiccExchange(const QByteArray &answer, int delayMs, const QHostAddress &replyTo,
                                           quint16 replyPort, const Pieces &pieces) {
    using T = ScriptedTerminal;
    return {T::awaitRequest(), T::reply(QByteArray(1, ACK)),
            T::deliver(replyTo, replyPort, listenerFrame(answer), qMax(delayMs, 0), pieces)};
}

} // namespace devsim
