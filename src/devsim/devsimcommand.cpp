#include "devsimcommand.h"

#include "common/cp949.h"
#include "common/localaddresses.h"
#include "printer.h"
#include "serialterminal.h"
#include "vendorscripts.h"
#include "wiretext.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QTimer>
#include <cstdio>
#include <optional>

namespace {

const char *const usageText = R"(Usage:
  teranocounter-devsim printer [--listen ADDR] [--port N]
  teranocounter-devsim terminal kis|kicc|smartro [--listen ADDR] [--port N] [--answer TEXT]
                                                 [--delay MS] [--reply-to ADDR[:PORT]]
                                                 [--pieces N] [--piece-gap MS]
  teranocounter-devsim serial [--model TS-132N|TS-167|SMT-T263|KIS-7430] [--answer TEXT]
                              [--link PATH] [--unplug-after S] [--unplug-for S]
Simulated kitchen printer and card terminals for developing a POS without hardware.
Every device prints one line per exchange: the time, the bytes in hex, the bytes as text.
)";

int fail(const QString &why) {
    std::fprintf(stderr, "teranocounter-devsim: %s\n", why.toUtf8().constData());
    return 2;
}

void say(const QString &line) {
    devsim::standardOutput()(line);
}

struct Options {
    QString listen;
    std::optional<quint16> port;
    QByteArray answer; // code page 949
    int delayMs = 1000;
    QHostAddress replyTo;
    quint16 replyPort = devsim::VendorPort::kicc;
    QString model = QStringLiteral("TS-132N");
    QString link;
    int unplugAfterS = 0;
    int unplugForS = 5;
    devsim::Pieces pieces;
};

std::optional<int> number(const QString &text, int low, int high) {
    bool ok = false;
    const int value = text.toInt(&ok);
    if (!ok || value < low || value > high)
        return std::nullopt;
    return value;
}

int runPrinter(const Options &options, QObject *owner) {
    auto *printer = new devsim::Printer(owner);
    printer->setLog(devsim::standardOutput());
    const quint16 port = options.port.value_or(9100);
    const QString listen = options.listen.isEmpty() ? QStringLiteral("127.0.0.1") : options.listen;
    if (!printer->listen(port, QHostAddress(listen)))
        return fail(QStringLiteral("printer cannot listen on %1:%2: %3")
                        .arg(listen)
                        .arg(port)
                        .arg(printer->errorString()));
    say(QStringLiteral("printer listening on %1:%2; each job is shown when its sender closes")
            .arg(listen)
            .arg(port));
    return 0;
}

int runTerminal(const QString &vendor, const Options &options, QObject *owner) {
    auto *terminal = new devsim::ScriptedTerminal(owner);
    terminal->setLog(vendor, devsim::standardOutput());
    quint16 port = 0;
    if (vendor == QLatin1String("kis")) {
        port = devsim::VendorPort::kis;
        terminal->setScript(devsim::kisExchange(options.answer, options.delayMs, options.pieces));
    } else if (vendor == QLatin1String("smartro")) {
        port = devsim::VendorPort::smartro;
        terminal->setScript(devsim::smartroExchange(options.answer, options.delayMs, options.pieces));
    } else if (vendor == QLatin1String("kicc")) {
        port = devsim::VendorPort::kicc;
        terminal->setScript(devsim::kiccExchange(options.answer, options.delayMs, options.replyTo,
                                                 options.replyPort, options.pieces));
    } else {
        return fail(QStringLiteral("unknown terminal \"%1\" (kis, kicc or smartro)").arg(vendor));
    }
    port = options.port.value_or(port);
    const QString listen = options.listen.isEmpty() ? QStringLiteral("127.0.0.1") : options.listen;
    if (!terminal->listen(port, QHostAddress(listen)))
        return fail(QStringLiteral("%1 terminal cannot listen on %2:%3: %4")
                        .arg(vendor, listen)
                        .arg(port)
                        .arg(terminal->errorString()));
    QString line = QStringLiteral("%1 terminal listening on %2:%3").arg(vendor, listen).arg(port);
    if (vendor == QLatin1String("kicc"))
        line += QStringLiteral(", answers to %1:%2").arg(options.replyTo.toString()).arg(options.replyPort);
    if (options.pieces.count > 1)
        line += QStringLiteral(", each answer in %1 pieces %2 ms apart")
                    .arg(options.pieces.count)
                    .arg(options.pieces.gapMs);
    say(line);
    return 0;
}

int runSerial(const Options &options, QObject *owner) {
    if (!devsim::SerialTerminal::models().contains(options.model))
        return fail(QStringLiteral("unknown model \"%1\" (%2)")
                        .arg(options.model, devsim::SerialTerminal::models().join(QStringLiteral(", "))));
    auto *terminal = new devsim::SerialTerminal(options.model, options.answer, owner);
    terminal->setLog(devsim::standardOutput());
    const QString link = options.link.isEmpty()
                             ? QDir::temp().filePath(QStringLiteral("teranocounter-devsim-") + options.model)
                             : options.link;
    if (!terminal->plug(link))
        return fail(QStringLiteral("cannot make a pseudo-terminal linked at %1").arg(link));
    // The path alone first, for scripts; then how to point the service at it.
    say(terminal->path());
    say(QStringLiteral("%1 on %2: TERANOCOUNTER_SERIAL_PORTS=%3 teranocounter, with --set MAIN_INTERFACE=USB "
                       "--set USB_PORT=%3 --set SERIAL_DEVICE_TYPE=%1")
            .arg(options.model, terminal->devicePath(), terminal->path()));
    if (options.unplugAfterS > 0) {
        auto *cycle = new QTimer(terminal);
        cycle->setSingleShot(true);
        QObject::connect(cycle, &QTimer::timeout, terminal, [terminal, cycle, link, options] {
            if (terminal->isPlugged()) {
                terminal->unplug();
                say(QStringLiteral("%1 unplugged from %2 for %3 s")
                        .arg(options.model, link)
                        .arg(options.unplugForS));
                cycle->start(options.unplugForS * 1000);
            } else if (terminal->plug(link)) {
                say(QStringLiteral("%1 plugged in again at %2 (%3)")
                        .arg(options.model, link, terminal->devicePath()));
                cycle->start(options.unplugAfterS * 1000);
            } else {
                say(QStringLiteral("%1 could not be plugged in again at %2").arg(options.model, link));
            }
        });
        cycle->start(options.unplugAfterS * 1000);
    }
    return 0;
}

} // namespace

int runDevsim(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("teranocounter-devsim"));
    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(usageText));
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("This text."));
    const QCommandLineOption listen(QStringLiteral("listen"), QStringLiteral("Address to listen on."),
                                    QStringLiteral("ADDR"));
    const QCommandLineOption port(QStringLiteral("port"), QStringLiteral("Port to listen on."),
                                  QStringLiteral("N"));
    const QCommandLineOption answer(QStringLiteral("answer"), QStringLiteral("Text the POS should receive."),
                                    QStringLiteral("TEXT"));
    const QCommandLineOption delay(QStringLiteral("delay"), QStringLiteral("Time the customer takes, in ms."),
                                   QStringLiteral("MS"));
    const QCommandLineOption replyTo(QStringLiteral("reply-to"),
                                     QStringLiteral("KICC: the service's answer listener."),
                                     QStringLiteral("ADDR[:PORT]"));
    const QCommandLineOption model(QStringLiteral("model"), QStringLiteral("Serial terminal model."),
                                   QStringLiteral("MODEL"));
    const QCommandLineOption link(QStringLiteral("link"), QStringLiteral("Serial: path of the port's link."),
                                  QStringLiteral("PATH"));
    const QCommandLineOption unplugAfter(QStringLiteral("unplug-after"),
                                         QStringLiteral("Serial: pull the port out after S seconds."),
                                         QStringLiteral("S"));
    const QCommandLineOption unplugFor(QStringLiteral("unplug-for"),
                                       QStringLiteral("Serial: and leave it out for S seconds."),
                                       QStringLiteral("S"));
    const QCommandLineOption pieces(QStringLiteral("pieces"),
                                    QStringLiteral("Terminal: send each answer in N pieces, as Wi-Fi does."),
                                    QStringLiteral("N"));
    const QCommandLineOption pieceGap(QStringLiteral("piece-gap"),
                                      QStringLiteral("Terminal: with MS between the pieces."),
                                      QStringLiteral("MS"));
    parser.addOptions(
        {help, listen, port, answer, delay, replyTo, model, link, unplugAfter, unplugFor, pieces, pieceGap});
    parser.addPositionalArgument(QStringLiteral("device"), QStringLiteral("printer, terminal or serial"));
    if (!parser.parse(app.arguments()))
        return fail(parser.errorText());
    const QStringList words = parser.positionalArguments();
    if (parser.isSet(help) || words.isEmpty()) {
        std::fputs(usageText, words.isEmpty() && !parser.isSet(help) ? stderr : stdout);
        return parser.isSet(help) ? 0 : 2;
    }

    Options options;
    options.listen = parser.value(listen);
    if (parser.isSet(listen) && QHostAddress(options.listen).isNull())
        return fail(QStringLiteral("--listen takes a numeric address, not \"%1\"").arg(options.listen));
    if (parser.isSet(port)) {
        const std::optional<int> value = number(parser.value(port), 1, 65535);
        if (!value)
            return fail(QStringLiteral("--port takes a number from 1 to 65535"));
        options.port = static_cast<quint16>(*value);
    }
    if (parser.isSet(delay)) {
        const std::optional<int> value = number(parser.value(delay), 0, 3600000);
        if (!value)
            return fail(QStringLiteral("--delay takes milliseconds, from 0 to 3600000"));
        options.delayMs = *value;
    }
    if (parser.isSet(pieces)) {
        const std::optional<int> value = number(parser.value(pieces), 1, 64);
        if (!value)
            return fail(QStringLiteral("--pieces takes a number from 1 to 64"));
        options.pieces.count = *value;
        options.pieces.gapMs = 50;
    }
    if (parser.isSet(pieceGap)) {
        const std::optional<int> value = number(parser.value(pieceGap), 0, 10000);
        if (!value)
            return fail(QStringLiteral("--piece-gap takes milliseconds, from 0 to 10000"));
        options.pieces.gapMs = *value;
    }
    const QString answerText = parser.isSet(answer) ? parser.value(answer) : devsim::defaultAnswer();
    const std::optional<QByteArray> encoded = cp949::encode(answerText);
    if (!encoded)
        return fail(QStringLiteral("--answer has characters that code page 949 does not have"));
    options.answer = *encoded;
    if (parser.isSet(model))
        options.model = parser.value(model);
    options.link = parser.value(link);
    for (const auto &[option, target] :
         {std::pair{&unplugAfter, &options.unplugAfterS}, std::pair{&unplugFor, &options.unplugForS}}) {
        if (!parser.isSet(*option))
            continue;
        const std::optional<int> value = number(parser.value(*option), 1, 86400);
        if (!value)
            return fail(QStringLiteral("--%1 takes seconds, from 1 to 86400").arg(option->names().first()));
        *target = *value;
    }
    if (parser.isSet(replyTo)) {
        QString text = parser.value(replyTo);
        const qsizetype colon = text.lastIndexOf(u':');
        if (colon > 0 && text.count(u':') == 1) {
            const std::optional<int> value = number(text.mid(colon + 1), 1, 65535);
            if (!value)
                return fail(QStringLiteral("--reply-to takes ADDR or ADDR:PORT"));
            options.replyPort = static_cast<quint16>(*value);
            text.truncate(colon);
        }
        options.replyTo = QHostAddress(text);
        if (options.replyTo.isNull())
            return fail(QStringLiteral("--reply-to takes a numeric address, not \"%1\"").arg(text));
    } else {
        // The service's answer listener is on this machine's first address, not on loopback.
        const QStringList addresses = localAddresses();
        options.replyTo = QHostAddress(addresses.isEmpty() ? QStringLiteral("127.0.0.1") : addresses.first());
    }

    const QString device = words.first();
    int status = 0;
    if (device == QLatin1String("printer") && words.size() == 1)
        status = runPrinter(options, &app);
    else if (device == QLatin1String("terminal") && words.size() == 2)
        status = runTerminal(words[1], options, &app);
    else if (device == QLatin1String("serial") && words.size() == 1)
        status = runSerial(options, &app);
    else
        return fail(QStringLiteral("unknown command \"%1\"; see --help").arg(words.join(u' ')));
    if (status != 0)
        return status;
    return app.exec();
}
