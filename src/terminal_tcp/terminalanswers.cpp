#include "terminalanswers.h"

namespace TerminalAnswers {

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
