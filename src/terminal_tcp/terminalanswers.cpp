#include "terminalanswers.h"

namespace TerminalAnswers {

qsizetype firstReplyEnd(const QByteArray &gathered) {
    qsizetype acknowledgement = 0;
    while (acknowledgement < gathered.size() && gathered.at(acknowledgement) == ACK)
        ++acknowledgement;
    return acknowledgement > 0 ? acknowledgement : gathered.size();
}

qsizetype kisAnswerEnd(const QByteArray &gathered) {
    if (gathered.at(0) == ACK)
        return 1;
    return gathered.endsWith(ETX) ? gathered.size() : 0;
}

qsizetype smartroReplyEnd(const QByteArray &gathered) {
    return gathered.endsWith(ETX) ? gathered.size() : 0;
}

qsizetype listenerFrameEnd(const QByteArray &gathered) {
    // Code page 949 text never holds the byte 03, so the ETX three from the end is the
    // frame's own (a frame of 8 bytes is an empty answer).
    constexpr qsizetype shortest = 5 + 3;
    return gathered.size() >= shortest && gathered.at(gathered.size() - 3) == ETX ? gathered.size() : 0;
}

qsizetype replyLength(const QByteArray &gathered, qint64 limit, ReplyEnd end, bool moreMayCome) {
    if (gathered.isEmpty())
        return 0;
    const QByteArray window = gathered.left(limit);
    if (const qsizetype whole = end(window); whole > 0)
        return whole;
    if (window.size() >= limit || !moreMayCome)
        return window.size();
    return 0;
}

bool kisEndsWithFirstReply(const QByteArray &request, const QString &kind) {
    return kind == QLatin1String("print") || (request.size() > 2 && request.at(2) == DLE);
}

KisAnswer readKisAnswer(const std::optional<QByteArray> &answer) {
    if (!answer || answer->isEmpty() || answer->at(0) == ACK)
        return {KisAnswer::Kind::Nothing, {}};
    if (answer->size() <= 3)
        return {KisAnswer::Kind::TooShort, {}};
    return {KisAnswer::Kind::Result, answer->mid(3, answer->size() - 4)};
}

bool isSmartroFinalReply(const QByteArray &reply) {
    return !reply.isEmpty() && reply.at(0) == DLE;
}

QByteArray listenerAnswerBytes(const QByteArray &frame) {
    constexpr qsizetype frontCut = 5;
    constexpr qsizetype backCut = 3;
    if (frame.size() < frontCut + 1 + backCut)
        return {};
    return frame.mid(frontCut, frame.size() - frontCut - backCut);
}

} // namespace TerminalAnswers
