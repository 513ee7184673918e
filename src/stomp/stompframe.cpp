#include "stompframe.h"

namespace {

constexpr QChar frameEnd = QChar(u'\0');

struct CommandName {
    STOMPFrame::CommandType command;
    QStringView text;
};

constexpr CommandName commandNames[] = {
    {STOMPFrame::CommandType::Connect, u"CONNECT"},
    {STOMPFrame::CommandType::Disconnect, u"DISCONNECT"},
    {STOMPFrame::CommandType::Send, u"SEND"},
    {STOMPFrame::CommandType::Subscribe, u"SUBSCRIBE"},
    {STOMPFrame::CommandType::Unsubscribe, u"UNSUBSCRIBE"},
};

} // namespace

std::optional<STOMPFrame::CommandType> STOMPFrame::commandFromText(QStringView text) {
    for (const CommandName &name : commandNames)
        if (text.compare(name.text, Qt::CaseSensitive) == 0)
            return name.command;
    return std::nullopt;
}

QString STOMPFrame::textOf(CommandType command) {
    for (const CommandName &name : commandNames)
        if (name.command == command)
            return name.text.toString();
    Q_UNREACHABLE();
    return {};
}

std::optional<STOMPFrame> STOMPFrame::parse(QStringView text) {
    // Only a line feed ends the command line: a client that sends CR LF gets its command
    // compared with the carriage return still attached, and so is refused.
    const qsizetype lineEnd = text.indexOf(u'\n');
    const QStringView commandLine = lineEnd < 0 ? text : text.first(lineEnd);
    const std::optional<CommandType> command = commandFromText(commandLine);
    std::optional<STOMPFrame> frame;
    if (command)
        frame.emplace(STOMPFrame(*command));
    return frame;
}

QString STOMPFrame::connected(const QString &sessionId, const std::optional<QString> &attachment) {
    return QStringLiteral("CONNECTED\nversion:1.2\nsession=") + sessionId + QStringLiteral("\nattachment:") +
           attachment.value_or(QString()) + QStringLiteral("\n\n") + frameEnd;
}

QString STOMPFrame::receipt() {
    return QStringLiteral("RECEIPT\n\n") + frameEnd;
}

QString STOMPFrame::error() {
    return QStringLiteral("ERROR\n\n") + frameEnd;
}

QString STOMPFrame::message(const QString &attachment) {
    return QStringLiteral("MESSAGE\nAttachment_received:") + attachment + QStringLiteral("\n\n") + frameEnd;
}
