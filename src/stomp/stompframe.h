#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringView>
#include <optional>

// One incoming STOMP text message, as far as the test server cares: its command line.
// Headers and body of incoming frames are never looked at, so they stay empty; the
// fields exist so that a frame has the shape every STOMP client expects.
class STOMPFrame {
public:
    // The order is part of the type (Connect is 0 ... Unsubscribe is 4).
    enum class CommandType { Connect = 0, Disconnect = 1, Send = 2, Subscribe = 3, Unsubscribe = 4 };

    // Exact, case-sensitive, whole-line match; anything else is not a command.
    static std::optional<CommandType> commandFromText(QStringView text);
    static QString textOf(CommandType command);

    // Reads the command line (up to the first line feed, carriage return included) and
    // nothing else. Nothing comes back when that line is not one of the five commands.
    static std::optional<STOMPFrame> parse(QStringView text);

    // Replies sent by the server. Each ends with the NUL that terminates a STOMP frame;
    // the NUL is part of the text handed to the WebSocket. Their odd spots are what
    // clients of this server have always seen ("session=" rather than "session:", the
    // attachment in an "Attachment_received" header, no destination in MESSAGE), so
    // they stay.
    static QString connected(const QString &sessionId, const std::optional<QString> &attachment);
    static QString receipt();
    static QString error();
    static QString message(const QString &attachment);

    CommandType command;
    QMap<QString, QString> headers;
    std::optional<QByteArray> body;

private:
    explicit STOMPFrame(CommandType command) : command(command) {}
};
