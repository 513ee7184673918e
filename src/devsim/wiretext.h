#pragma once

#include <QByteArray>
#include <QString>
#include <functional>

// How a simulated device shows what crossed its wire: one line per exchange, with the
// time, the bytes in hex and the bytes as text decoded from code page 949. Control bytes
// are written as tags so that the line stays one line and nothing invisible is lost.
namespace devsim {

// Where a device's lines go; an empty one keeps the device quiet.
using LineSink = std::function<void(const QString &line)>;

// A sink that writes each line to standard output and flushes it at once.
LineSink standardOutput();

// "1b 40 b1 e8"
QString hexBytes(const QByteArray &bytes);

// Bytes as a receipt printer reads them: ESC/POS commands as tags with their arguments
// in decimal (`<ESC @>`, `<GS V 0>`, `<ESC ! 48>`), other control bytes as their names
// (`<LF>`), text decoded from code page 949, bytes that are no text as `<xx>` in hex.
QString printerText(const QByteArray &bytes);

// Bytes as a card terminal frames them: STX, ETX, ACK, DLE... as `<STX>`, the rest as
// printerText() shows text.
QString terminalText(const QByteArray &bytes);

// "HH:mm:ss.zzz <who> <what> <n> bytes | <hex> | <text>"
QString wireLine(const QString &who, const QString &what, const QByteArray &bytes, const QString &text);

} // namespace devsim
