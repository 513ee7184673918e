#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>
#include <functional>
#include <optional>

#include "common/terminalchannel.h"

// Gathers a card terminal's answer from the chunks the serial line delivers and hands it
// to the POS. An answer runs from STX to ETX; nothing else about the frame is checked (no
// length, no LRC, no ACK/NAK, no time-out), because the POS interprets the text itself.
// The rules are deliberately simple and are kept exactly, odd corners included:
//  - only a chunk's first byte is tested for STX, and it empties the buffer;
//  - the first ETX anywhere in a chunk ends the answer, even one inside the payload, and
//    every byte of that chunk (a check byte behind the ETX too) is in the buffer when the
//    model's framing bytes are cut, so the end cut counts from the last byte received;
//  - an answer under 9 bytes, or one that is not code page 949, is dropped without a word;
//  - no real answer comes near 64 KiB: a line that sends more than that without an ETX is
//    broken or flooding, so what was kept is thrown away (the caller says so once) and
//    nothing is kept again until a chunk starts with STX.
// Knows nothing of serial ports, so it can be tested and fuzzed on plain bytes.
class SerialAnswerFraming {
public:
    static constexpr char startOfText = 0x02;
    static constexpr char endOfText = 0x03;
    static constexpr qsizetype minimumAnswerLength = 9;
    static constexpr qsizetype maximumAnswerLength = 64 * 1024;

    // Bytes each terminal model wraps around its answer text.
    struct Trim {
        qsizetype front;
        qsizetype end;
        bool operator==(const Trim &) const = default;
    };
    static Trim trimFor(const QString &deviceType);

    enum class Outcome {
        Ignored,     // USB is not the active interface: the chunk was not even kept
        Collecting,  // kept, waiting for the ETX
        TooShort,    // ETX seen, fewer than 9 bytes: dropped
        Undecodable, // ETX seen, the text is not code page 949: dropped
        Answered,    // ETX seen, `text` is the answer
        Overflowed,  // past 64 KiB without an ETX: all of it thrown away, waiting for an STX
        Discarded,   // thrown away unread: no STX since the overflow
    };
    struct Result {
        Outcome outcome = Outcome::Ignored;
        QString text;
        bool operator==(const Result &) const = default;
    };

    // Reads a setting, by its name in the file, as stored, or nothing when it is absent.
    using SettingReader = std::function<std::optional<QVariant>(const QString &key)>;

    // By default the settings come from the user's settings file, read afresh per chunk.
    explicit SerialAnswerFraming(SettingReader readSetting = {});

    // One chunk as the line delivered it. Reads MAIN_INTERFACE and SERIAL_DEVICE_TYPE
    // (either one missing is a fatal stop: both are written long before an answer can
    // come), and returns the answer for the POS when one is complete.
    std::optional<TerminalAnswer> didReceiveData(const QByteArray &chunk);

    // The framing itself, with the settings already read. `deviceType` is asked for only
    // when the chunk has bytes to walk.
    Result receive(const QByteArray &chunk, const QString &mainInterface,
                   const std::function<QString()> &deviceType);

    // The answer being collected (empty between answers).
    const QByteArray &combinedATransactionData() const { return buffer; }

private:
    QString requiredSetting(const QString &key) const;

    SettingReader readSetting;
    QByteArray buffer;
    bool waitingForStart = false; // after an overflow, until a chunk starts with STX
};
