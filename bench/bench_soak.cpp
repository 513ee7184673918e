// Soak: the real `teranocounter --headless` under steady mixed traffic for a long while,
// to see whether its resident memory settles or keeps climbing. A POS page sends kitchen
// orders to two fake printers all the time and one card payment at a time, to a fake KIS
// terminal on loopback or to a terminal on a pseudo-terminal, switching MAIN_INTERFACE
// between TCP and USB every 20 s; every 30 s the page reloads (a new connection).
// Resident memory is sampled every 10 s and compared between the end of the warm-up and
// the end of the run.
//
//   bench_soak [--minutes M] [--warmup-seconds S]     (defaults: 10 minutes, 60 s)
//
// Uses the service's fixed ports (49999, 5000, 5501, 13189) and needs a non-loopback
// interface up: run it where nothing else uses them (bench/soak.sh says how).
#include "common/cp949.h"
#include "devsim/printer.h"
#include "devsim/pseudoterminal.h"
#include "devsim/scriptedterminal.h"
#include "devsim/vendorscripts.h"
#include "posclient.h"
#include "processusage.h"
#include "serviceprocess.h"
#include "terminalframes.h"
#include "wait.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTimer>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

namespace {

QByteArray ts132n(const QByteArray &text) {
    return QByteArray::fromHex("02") + "HDR1" + text + "T2" + QByteArray::fromHex("03");
}

void say(const QString &line) {
    std::fputs(qPrintable(line + u'\n'), stdout);
    std::fflush(stdout);
}

} // namespace

int main(int argc, char *argv[]) {
    QCoreApplication app(argc, argv);
    QCommandLineParser options;
    options.addHelpOption();
    options.addOption({"minutes", "How long to run.", "minutes", "10"});
    options.addOption(
        {"warmup-seconds", "Traffic before the first memory figure that counts.", "seconds", "60"});
    options.process(app);
    const qint64 runMs = static_cast<qint64>(options.value("minutes").toDouble() * 60'000);
    const qint64 warmupMs = static_cast<qint64>(options.value("warmup-seconds").toDouble() * 1000);
    if (runMs <= warmupMs) {
        say(QStringLiteral("the run must be longer than the warm-up"));
        return 2;
    }

    if (ServiceProcess::gatewayAcceptsConnections()) {
        say(QStringLiteral("port 49999 is already in use"));
        return 2;
    }
    QTemporaryDir dir;
    const QString linkPath = dir.filePath(QStringLiteral("card-terminal"));
    qputenv("TERANOCOUNTER_SERIAL_PORTS", QFile::encodeName(linkPath));
    devsim::PseudoTerminal serialTerminal;
    devsim::PortLink link(linkPath);
    if (!serialTerminal.isValid() || !link.plug(serialTerminal)) {
        say(QStringLiteral("no pseudo-terminal"));
        return 2;
    }

    const QByteArray kisAnswer = cp949::encode(QStringLiteral("승인 완료 KIS")).value();
    devsim::ScriptedTerminal kis;
    devsim::Printer printers[2];
    if (!kis.listen(5000, QHostAddress::LocalHost) || !printers[0].listen() || !printers[1].listen()) {
        say(QStringLiteral("could not listen for the fake terminal or printers"));
        return 2;
    }
    const QByteArray kisRequest("\x02PAY-SOAK\x03");
    kis.setScript(devsim::kisExchange(kisAnswer, 20));

    ServiceProcess service;
    service.runToEnd(
        {"--set", "MAIN_INTERFACE=TCP", "--set", "TCP_IP=127.0.0.1", "--set", "USB_PORT=" + linkPath});
    if (!service.start()) {
        say(QStringLiteral("the service did not start"));
        return 2;
    }
    const qint64 pid = service.pid();
    const qint64 launchKiB = ProcessUsage::residentKiB(pid);

    auto pos = std::make_unique<PosClient>();
    if (!pos->open(ServiceProcess::gatewayPort)) {
        say(QStringLiteral("the POS could not connect"));
        return 2;
    }

    QString phase = QStringLiteral("TCP");
    qint64 ordersSent = 0, paymentsSent = 0, answersRight = 0, answersWrong = 0, reloads = 0, switches = 0;
    qsizetype answersSeen = 0; // of the current page's texts
    bool awaitingAnswer = false;
    bool reloading = false; // the new page's handshake runs an event loop of its own
    qint64 paymentSentAt = 0;
    qint64 slowestAnswerMs = 0;
    qsizetype serialSeen = 0;
    const QString kisExpected = QStringLiteral("승인 완료 KIS");
    const QString serialExpected = QStringLiteral("APPROVED SERIAL");

    QElapsedTimer clock;
    clock.start();
    qint64 warmKiB = -1;
    QList<qint64> samples;

    const auto takeAnswers = [&] {
        while (answersSeen < pos->texts.size()) {
            const QJsonObject answer = jsonObject(pos->texts[answersSeen++]);
            const bool right = answer == expectedAnswer(kisExpected, "KIS7430") ||
                               answer == expectedAnswer(serialExpected, "TS-132N");
            (right ? answersRight : answersWrong)++;
            if (awaitingAnswer)
                slowestAnswerMs = std::max(slowestAnswerMs, clock.elapsed() - paymentSentAt);
            awaitingAnswer = false;
        }
    };

    // Answers are taken as they arrive, so that their time is the service's, not a timer's.
    const auto watchAnswers = [&] {
        QObject::connect(&pos->socket, &QWebSocket::textMessageReceived, [&] { takeAnswers(); });
    };
    watchAnswers();

    // Kitchen orders: five a second, alternating printers, now and then a long one.
    QTimer orders;
    QObject::connect(&orders, &QTimer::timeout, [&] {
        if (reloading)
            return;
        const QString text =
            ordersSent % 50 == 0
                ? QStringLiteral("주문 %1: 김치찌개 2, 똠얌꿍 1\n").arg(ordersSent).repeated(100)
                : QStringLiteral("주문 %1: 김치찌개 2, 똠얌꿍 1\n").arg(ordersSent);
        pos->send(kitchenOrderFrame(text, printers[ordersSent % 2].port()));
        ++ordersSent;
    });
    orders.start(200);

    // One payment at a time on the active interface; a new one as soon as the last is answered.
    QTimer payments;
    QObject::connect(&payments, &QTimer::timeout, [&] {
        takeAnswers();
        if (awaitingAnswer || reloading)
            return;
        awaitingAnswer = true;
        paymentSentAt = clock.elapsed();
        ++paymentsSent;
        pos->send(phase == QLatin1String("TCP")
                      ? terminalFrame(QStringLiteral("KIS"), kisRequest)
                      : QStringLiteral(R"({"requesttype":"payment","data":[80,65,89]})"));
    });
    payments.start(250);

    // The serial terminal answers every request it is sent.
    QTimer serialSide;
    QObject::connect(&serialSide, &QTimer::timeout, [&] {
        const qsizetype now = serialTerminal.received().size();
        if (now >= serialSeen + 3) {
            serialSeen = now;
            serialTerminal.write(ts132n(serialExpected.toLatin1()));
        }
    });
    serialSide.start(20);

    // Every 20 s the other interface, once the payment in flight is answered.
    QTimer switcher;
    QObject::connect(&switcher, &QTimer::timeout, [&] {
        takeAnswers();
        if (awaitingAnswer) {
            switcher.start(100); // try again shortly
            return;
        }
        phase = phase == QLatin1String("TCP") ? QStringLiteral("USB") : QStringLiteral("TCP");
        service.runToEnd({"--set", "MAIN_INTERFACE=" + phase});
        ++switches;
        switcher.start(20'000);
    });
    switcher.start(20'000);

    // Every 30 s the POS page reloads, between payments.
    QTimer reloader;
    QObject::connect(&reloader, &QTimer::timeout, [&] {
        takeAnswers();
        if (awaitingAnswer) {
            reloader.start(100);
            return;
        }
        reloading = true;
        pos = std::make_unique<PosClient>();
        answersSeen = 0;
        watchAnswers();
        if (pos->open(ServiceProcess::gatewayPort))
            ++reloads;
        reloading = false;
        reloader.start(30'000);
    });
    reloader.start(30'000);

    QTimer sampler;
    QObject::connect(&sampler, &QTimer::timeout, [&] {
        const qint64 kib = ProcessUsage::residentKiB(pid);
        samples << kib;
        if (warmKiB < 0 && clock.elapsed() >= warmupMs) {
            warmKiB = kib;
            say(QStringLiteral("after the %1 s warm-up: resident %2 KiB").arg(warmupMs / 1000).arg(kib));
        }
        if (samples.size() % 6 == 0)
            say(QStringLiteral("%1 s: resident %2 KiB, %3 orders, %4 payments, %5 answers")
                    .arg(clock.elapsed() / 1000)
                    .arg(kib)
                    .arg(ordersSent)
                    .arg(paymentsSent)
                    .arg(answersRight + answersWrong));
    });
    sampler.start(10'000);

    say(QStringLiteral("soak for %1 s, warm-up %2 s; resident at launch %3 KiB")
            .arg(runMs / 1000)
            .arg(warmupMs / 1000)
            .arg(launchKiB));
    waitUntil([&] { return clock.elapsed() >= runMs || !service.isRunning(); },
              static_cast<int>(runMs + 1000));
    orders.stop();
    payments.stop();
    switcher.stop();
    reloader.stop();
    // The last payment and the last orders get their time to finish.
    waitUntil(
        [&] {
            takeAnswers();
            return !awaitingAnswer;
        },
        5000);
    keepRunningFor(2500);

    if (!service.isRunning()) {
        say(QStringLiteral("the service stopped: %1").arg(service.stderrLines().join(u'|')));
        return 1;
    }
    const qint64 endKiB = ProcessUsage::residentKiB(pid);
    qint64 printed = 0;
    for (const devsim::Printer &printer : printers)
        for (const auto &c : printer.connections())
            printed += !c.received.isEmpty();
    if (printed != ordersSent) {
        QStringList missing;
        for (qint64 i = 0; i < ordersSent; ++i) {
            const QByteArray mark = cp949::encode(QStringLiteral("주문 %1:").arg(i)).value();
            bool found = false;
            for (const auto &c : printers[i % 2].connections())
                found = found || c.received.startsWith(mark);
            if (!found)
                missing << QString::number(i);
        }
        say(QStringLiteral("orders not printed: %1").arg(missing.join(u' ')));
    }
    // Anything the service said besides its per-frame and per-request lines.
    const QStringList remarks = service.stdoutLines().filter(
        QRegularExpression(QStringLiteral("^(?!RECV FIRED!!!:$|TCP request: )")));
    say(QStringLiteral("frames the service took: %1 of %2; other lines: %3")
            .arg(service.stdoutLines().count(ServiceProcess::recvFired))
            .arg(ordersSent + paymentsSent)
            .arg(remarks.isEmpty() ? QStringLiteral("none") : remarks.join(u'|')));
    const double change = warmKiB > 0 ? 100.0 * (endKiB - warmKiB) / warmKiB : 0;
    say(QStringLiteral("kitchen orders: %1 sent, %2 printed").arg(ordersSent).arg(printed));
    say(QStringLiteral("payments: %1 sent, %2 answered right, %3 wrong, slowest answer %4 ms; %5 interface "
                       "switches, %6 page reloads")
            .arg(paymentsSent)
            .arg(answersRight)
            .arg(answersWrong)
            .arg(slowestAnswerMs)
            .arg(switches)
            .arg(reloads));
    say(QStringLiteral("resident: %1 KiB at launch, %2 KiB after the warm-up, %3 KiB at the end (%4%5 %), "
                       "peak %6 KiB")
            .arg(launchKiB)
            .arg(warmKiB)
            .arg(endKiB)
            .arg(change >= 0 ? QStringLiteral("+") : QString())
            .arg(change, 0, 'f', 1)
            .arg(ProcessUsage::peakResidentKiB(pid)));
    const bool ok = warmKiB > 0 && std::abs(change) <= 10.0 && printed == ordersSent && answersWrong == 0 &&
                    answersRight == paymentsSent;
    say(ok ? QStringLiteral("PASS: within 10 %, nothing lost") : QStringLiteral("FAIL"));
    return ok ? 0 : 1;
}
