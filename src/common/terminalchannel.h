#pragma once

#include <QByteArray>
#include <QMetaType>
#include <QObject>
#include <QString>
#include <optional>

// A POS request for the active card terminal, as routing hands it to a terminal channel.
struct TerminalRequest {
    QByteArray data;                    // "data", already turned into bytes
    std::optional<QString> requestType; // "requesttype"; nothing when the POS sent no text there
    QString van;                        // "van"; empty when the POS sent no text there
};

// A card terminal's answer on its way to the POS.
struct TerminalAnswer {
    QString text;
    QString deviceName; // the terminal's model, as the POS reads it in "devicename"

    // The frame the POS receives:
    // {"response":{"data":<text>},"devicetype":"CAT","devicename":<model>}, compact.
    QString json() const;
    bool operator==(const TerminalAnswer &) const = default;
};
Q_DECLARE_METATYPE(TerminalAnswer)

// What the gateway hands terminal requests to: the TCP channel or the USB one, whichever
// the settings make active. Answers come back as answerReady, on the thread that produced
// them; the gateway takes care of reaching its sockets from there.
class TerminalChannel : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

    virtual void handleRequest(const TerminalRequest &request) = 0;

signals:
    void answerReady(const TerminalAnswer &answer);
};
