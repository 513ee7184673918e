#include "wiretext.h"

#include "common/cp949.h"

#include <QTime>
#include <array>
#include <cstdio>

namespace devsim {

namespace {

constexpr std::array<const char *, 32> controlNames = {"NUL", "SOH", "STX", "ETX", "EOT", "ENQ", "ACK", "BEL",
                                                       "BS",  "HT",  "LF",  "VT",  "FF",  "CR",  "SO",  "SI",
                                                       "DLE", "DC1", "DC2", "DC3", "DC4", "NAK", "SYN", "ETB",
                                                       "CAN", "EM",  "SUB", "ESC", "FS",  "GS",  "RS",  "US"};

quint8 at(const QByteArray &bytes, qsizetype i) {
    return static_cast<quint8>(bytes.at(i));
}

// How many argument bytes follow an ESC/POS command (after its prefix and command
// letter); -1 when the command is not one a kitchen printer is sent.
int escArguments(char command) {
    switch (command) {
    case '@': // initialise
    case '2': // default line spacing
    case '<':
        return 0;
    case '!': // print mode
    case '-': // underline
    case '3': // line spacing
    case 'E': // emphasis
    case 'G': // double strike
    case 'J': // feed n dots
    case 'M': // font
    case 'R': // character set
    case 'a': // justification
    case 'd': // feed n lines
    case 't': // code table
    case '{': // upside down
        return 1;
    case 'p': // drawer kick: pin, on time, off time
        return 3;
    default:
        return -1;
    }
}

int gsArguments(char command, const QByteArray &bytes, qsizetype commandIndex) {
    switch (command) {
    case '!': // character size
    case 'B': // reverse
    case 'H': // barcode text position
    case 'h': // barcode height
    case 'w': // barcode width
        return 1;
    case 'L': // left margin
    case 'W': // print area width
        return 2;
    case 'V': // cut: 0, 1, 48, 49 alone; 65, 66 with a feed amount
        if (commandIndex + 1 < bytes.size()) {
            const quint8 mode = at(bytes, commandIndex + 1);
            return (mode == 65 || mode == 66) ? 2 : 1;
        }
        return 1;
    default:
        return -1;
    }
}

int fsArguments(char command) {
    switch (command) {
    case '&': // Korean (two-byte) characters on
    case '.': // off
        return 0;
    case '!': // two-byte character print mode
    case '-': // two-byte underline
        return 1;
    default:
        return -1;
    }
}

// Appends the text of bytes[from, to) that holds no control byte: ASCII as it is,
// code page 949 pairs decoded, anything else as <xx>.
void appendText(QString &out, const QByteArray &bytes, qsizetype from, qsizetype to) {
    qsizetype i = from;
    while (i < to) {
        const quint8 byte = at(bytes, i);
        if (byte < 0x80) {
            out += byte == 0x7f ? QStringLiteral("<DEL>") : QString(QChar(byte));
            ++i;
            continue;
        }
        if (i + 1 < to) {
            if (const std::optional<QString> pair = cp949::decode(bytes.mid(i, 2))) {
                out += *pair;
                i += 2;
                continue;
            }
        }
        out += QStringLiteral("<%1>").arg(byte, 2, 16, QLatin1Char('0'));
        ++i;
    }
}

QString render(const QByteArray &bytes, bool escPos) {
    QString out;
    qsizetype i = 0;
    while (i < bytes.size()) {
        qsizetype end = i;
        while (end < bytes.size() && at(bytes, end) >= 0x20)
            ++end;
        appendText(out, bytes, i, end);
        i = end;
        if (i >= bytes.size())
            break;
        const quint8 control = at(bytes, i);
        const bool prefix = control == 0x1b || control == 0x1d || control == 0x1c;
        if (escPos && prefix && i + 1 < bytes.size()) {
            const char command = bytes.at(i + 1);
            const int count = control == 0x1b   ? escArguments(command)
                              : control == 0x1d ? gsArguments(command, bytes, i + 1)
                                                : fsArguments(command);
            if (count >= 0 && i + 1 + count < bytes.size()) {
                QString tag =
                    QStringLiteral("<%1 %2").arg(QLatin1String(controlNames[control]), QChar(command));
                for (int a = 1; a <= count; ++a)
                    tag += u' ' + QString::number(at(bytes, i + 1 + a));
                out += tag + u'>';
                i += 2 + count;
                continue;
            }
        }
        out += u'<' + QLatin1String(controlNames[control]) + u'>';
        ++i;
    }
    return out;
}

} // namespace

LineSink standardOutput() {
    return [](const QString &line) {
        const QByteArray bytes = line.toUtf8() + '\n';
        std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
        std::fflush(stdout);
    };
}

QString hexBytes(const QByteArray &bytes) {
    return QString::fromLatin1(bytes.toHex(' '));
}

QString printerText(const QByteArray &bytes) {
    return render(bytes, true);
}

QString terminalText(const QByteArray &bytes) {
    return render(bytes, false);
}

QString wireLine(const QString &who, const QString &what, const QByteArray &bytes, const QString &text) {
    return QStringLiteral("%1 %2 %3 %4 bytes | %5 | %6")
        .arg(QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz")), who, what)
        .arg(bytes.size())
        .arg(hexBytes(bytes), text);
}

} // namespace devsim
