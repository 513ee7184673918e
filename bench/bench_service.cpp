// The real `teranocounter --headless`, measured from outside the way a shop meets it: a
// POS on ws://127.0.0.1:49999/, a fake KIS terminal on 127.0.0.1:5000, a pseudo-terminal
// as the serial terminal, fake kitchen printers, and /proc for what the idle process costs.
//
// The fake terminal, the bare echo server and the printers are this same executable
// started again with a mode argument, so the comparison path (the floor) crosses as many
// processes as the service path does. Every time stamp is CLOCK_MONOTONIC, which all
// processes share, so a time taken in a helper and one taken here can be subtracted.
//
// Counts come from the environment (BENCH_PAYMENTS, BENCH_SERIAL_ANSWERS, BENCH_ORDERS,
// BENCH_PRINTERS, BENCH_STARTS, BENCH_IDLE_SECONDS, BENCH_KIS_ANSWER_DELAY_MS), and
// BENCH_CASES picks cases; the table goes to standard output, progress and diagnostics to
// standard error.
#include "common/cp949.h"
#include "devsim/printer.h"
#include "devsim/pseudoterminal.h"
#include "terminalframes.h"
#include "wait.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QSet>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <QWebSocket>
#include <QWebSocketServer>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace {

constexpr quint16 gatewayPort = 49999;
constexpr quint16 kisPort = 5000;
const QByteArray recvFired = QByteArrayLiteral("RECV FIRED!!!:");

qint64 nowNs() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return qint64(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

double toMs(qint64 ns) {
    return double(ns) / 1e6;
}

int countSetting(const char *name, int fallback) {
    bool ok = false;
    const int value = qEnvironmentVariableIntValue(name, &ok);
    return ok && value > 0 ? value : fallback;
}

void progress(const QString &line) {
    std::fprintf(stderr, "bench_service: %s\n", qPrintable(line));
    std::fflush(stderr);
}

// Nearest rank, as bench_gateway takes it: the value below which the fraction p of the
// runs fall.
double percentile(std::vector<double> values, double p) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const size_t index =
        std::min(values.size() - 1, static_cast<size_t>(p * static_cast<double>(values.size())));
    return values[index];
}

double median(std::vector<double> values) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

void row(const QString &name, qsizetype runs, const QString &p50, const QString &p99, const QString &max,
         const QString &notes) {
    std::printf("| %s | %lld | %s | %s | %s | %s |\n", qPrintable(name), static_cast<long long>(runs),
                qPrintable(p50), qPrintable(p99), qPrintable(max), qPrintable(notes));
    std::fflush(stdout);
}

QString ms(double value) {
    return QString::number(value, 'f', 3);
}

void latencyRow(const QString &name, const std::vector<double> &values, const QString &notes) {
    row(name, qsizetype(values.size()), ms(percentile(values, 0.5)), ms(percentile(values, 0.99)),
        ms(percentile(values, 1.0)), notes);
}

void failedRow(const QString &name, const QString &why) {
    row(name, 0, QStringLiteral("—"), QStringLiteral("—"), QStringLiteral("—"),
        QStringLiteral("failed: ") + why);
}

QByteArray cp(const QString &text) {
    return cp949::encode(text).value();
}

// ---------------------------------------------------------------------------------------
// Helpers in processes of their own

// Bytes that the TCP socket from 127.0.0.1:`fromPort` to 127.0.0.1:`toPort` has received
// and its owner has not read yet, as the kernel's socket diagnostics report them; nothing
// when it cannot tell (the socket is gone, say).
class UnreadBytes {
public:
    UnreadBytes() : fd(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {}
    ~UnreadBytes() {
        if (fd >= 0)
            ::close(fd);
    }
    UnreadBytes(const UnreadBytes &) = delete;
    UnreadBytes &operator=(const UnreadBytes &) = delete;

    std::optional<quint32> of(quint16 fromPort, quint16 toPort) const {
        if (fd < 0)
            return std::nullopt;
        struct {
            nlmsghdr header;
            inet_diag_req_v2 request;
        } message{};
        message.header.nlmsg_len = sizeof message;
        message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
        message.header.nlmsg_flags = NLM_F_REQUEST;
        message.request.sdiag_family = AF_INET;
        message.request.sdiag_protocol = IPPROTO_TCP;
        message.request.idiag_states = ~0u;
        message.request.id.idiag_sport = htons(fromPort);
        message.request.id.idiag_dport = htons(toPort);
        message.request.id.idiag_src[0] = htonl(INADDR_LOOPBACK);
        message.request.id.idiag_dst[0] = htonl(INADDR_LOOPBACK);
        message.request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
        message.request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
        sockaddr_nl kernel{};
        kernel.nl_family = AF_NETLINK;
        if (::sendto(fd, &message, sizeof message, 0, reinterpret_cast<sockaddr *>(&kernel), sizeof kernel) <
            0)
            return std::nullopt;
        alignas(nlmsghdr) char buffer[8192];
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n < ssize_t(sizeof(nlmsghdr)))
            return std::nullopt;
        const auto *reply = reinterpret_cast<const nlmsghdr *>(buffer);
        if (!NLMSG_OK(reply, n) || reply->nlmsg_type != SOCK_DIAG_BY_FAMILY)
            return std::nullopt;
        return static_cast<const inet_diag_msg *>(NLMSG_DATA(reply))->idiag_rqueue;
    }

private:
    int fd;
};

// One connection to the fake KIS terminal: once the request frame is complete (ETX), the
// first reply (ACK), then the answer. The service reads those two as two reads, and both
// taken in one read would be one first reply followed by a 300 s wait for an answer that
// already came. So the answer goes `answerDelayMs` after the first reply, and never before
// the other side has read the first reply: if it is still unread then (a busy machine),
// it is looked at again every millisecond, for up to the 1 s the service gives a first
// reply. Every such hold is reported with a line "held". The answer carries the request's
// sequence number, so every round trip can be checked against its own request.
//
// TCP_NODELAY here: the answer is a small write that follows another small write within a
// millisecond, which Nagle's algorithm would otherwise hold until the first is
// acknowledged. That delay would belong to this fake, not to what is measured.
class KisTerminalConnection : public QObject {
public:
    KisTerminalConnection(QTcpSocket *socket, int answerDelayMs, const UnreadBytes &unread)
        : QObject(socket), socket(socket), answerDelayMs(answerDelayMs), unread(unread) {
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        timer.setSingleShot(true);
        timer.setTimerType(Qt::PreciseTimer);
        connect(&timer, &QTimer::timeout, this, &KisTerminalConnection::answerOnceRead);
        connect(socket, &QTcpSocket::readyRead, this, &KisTerminalConnection::takeRequest);
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    }

private:
    void takeRequest() {
        if (received.endsWith('\x03'))
            return; // already answered; nothing more is expected
        received += socket->readAll();
        if (!received.endsWith('\x03'))
            return;
        const QByteArray number = received.mid(4, received.size() - 5); // \x02 PAY ... \x03
        answer = kisResult(cp(QStringLiteral("승인 완료 ")) + number);
        socket->write("\x06", 1);
        socket->flush();
        firstReplyAtNs = nowNs();
        timer.start(answerDelayMs);
    }

    void answerOnceRead() {
        const std::optional<quint32> left = unread.of(socket->peerPort(), socket->localPort());
        if (left && *left > 0 && nowNs() - firstReplyAtNs < 1'000'000'000) {
            if (!held) {
                std::printf("held\n");
                std::fflush(stdout);
            }
            held = true;
            timer.start(1);
            return;
        }
        socket->write(answer);
        socket->flush();
    }

    QTcpSocket *socket;
    int answerDelayMs;
    const UnreadBytes &unread;
    QTimer timer;
    QByteArray received;
    QByteArray answer;
    qint64 firstReplyAtNs = 0;
    bool held = false;
};

int runKisTerminal(int answerDelayMs) {
    UnreadBytes unread;
    QTcpServer server;
    server.setListenBacklogSize(128);
    if (!server.listen(QHostAddress::LocalHost, kisPort)) {
        std::printf("failed %s\n", qPrintable(server.errorString()));
        std::fflush(stdout);
        return 1;
    }
    QObject::connect(&server, &QTcpServer::newConnection, [&] {
        while (QTcpSocket *socket = server.nextPendingConnection())
            new KisTerminalConnection(socket, answerDelayMs, unread);
    });
    std::printf("ready %d\n", kisPort);
    std::fflush(stdout);
    return QCoreApplication::exec();
}

// A bare Qt WebSocket server that sends every text message back: one WebSocket round trip
// with nothing behind it.
int runEcho() {
    QWebSocketServer server(QStringLiteral("echo"), QWebSocketServer::NonSecureMode);
    if (!server.listen(QHostAddress::LocalHost, 0)) {
        std::printf("failed %s\n", qPrintable(server.errorString()));
        std::fflush(stdout);
        return 1;
    }
    QObject::connect(&server, &QWebSocketServer::newConnection, [&server] {
        while (QWebSocket *socket = server.nextPendingConnection()) {
            QObject::connect(socket, &QWebSocket::textMessageReceived, socket,
                             [socket](const QString &text) { socket->sendTextMessage(text); });
            QObject::connect(socket, &QWebSocket::disconnected, socket, &QObject::deleteLater);
        }
    });
    std::printf("ready %d\n", server.serverPort());
    std::fflush(stdout);
    return QCoreApplication::exec();
}

// Kitchen printers that accept and never answer. An order is there when its last byte
// (the text ends in a line feed) has come; its number is the "#1234 " it starts with.
// When all `expected` orders are there, each one's arrival time is reported.
int runPrinters(int count, int expected) {
    std::vector<std::unique_ptr<devsim::Printer>> printers;
    std::vector<std::pair<int, qint64>> arrivals; // order number, arrival
    arrivals.reserve(size_t(expected));
    QStringList ports;
    for (int i = 0; i < count; ++i) {
        auto printer = std::make_unique<devsim::Printer>();
        // Room for every order's connection at once: a short queue would drop connection
        // attempts and measure SYN retransmission instead of the service.
        printer->setListenBacklogSize(4096);
        if (!printer->listen()) {
            std::printf("failed %s\n", qPrintable(printer->errorString()));
            std::fflush(stdout);
            return 1;
        }
        ports << QString::number(printer->port());
        devsim::Printer *raw = printer.get();
        auto counted = std::make_shared<QSet<qsizetype>>(); // connections whose order is in
        QObject::connect(
            raw, &devsim::Printer::bytesReceived, [raw, counted, &arrivals, expected](qsizetype index) {
                const QByteArray &received = raw->connections()[index].received;
                if (counted->contains(index) || !received.endsWith('\n') || !received.startsWith('#'))
                    return;
                const qint64 at = nowNs();
                counted->insert(index); // counted once, even if more bytes come
                arrivals.emplace_back(received.mid(1, received.indexOf(' ') - 1).toInt(), at);
                if (int(arrivals.size()) != expected)
                    return;
                QByteArray report;
                for (const auto &[n, t] : arrivals)
                    report += "o " + QByteArray::number(n) + ' ' + QByteArray::number(t) + '\n';
                report += "done\n";
                std::fwrite(report.constData(), 1, size_t(report.size()), stdout);
                std::fflush(stdout);
            });
        printers.push_back(std::move(printer));
    }
    std::printf("ready %s\n", qPrintable(ports.join(u' ')));
    std::fflush(stdout);
    return QCoreApplication::exec();
}

// One helper process, seen from here: started with a mode, ready once it says so.
class Helper {
public:
    explicit Helper(const QStringList &arguments) {
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.start(QCoreApplication::applicationFilePath(), arguments);
    }
    ~Helper() {
        if (process.state() == QProcess::NotRunning)
            return;
        process.terminate();
        if (!process.waitForFinished(5000)) {
            process.kill();
            process.waitForFinished(5000);
        }
    }
    Helper(const Helper &) = delete;
    Helper &operator=(const Helper &) = delete;

    // The words after "ready", or nothing if the helper failed or said nothing in time.
    std::optional<QList<QByteArray>> waitReady(QString *why) {
        if (!waitUntil([this] { return nextLine().has_value() || process.state() == QProcess::NotRunning; },
                       10000) ||
            !lines.size()) {
            *why = QStringLiteral("helper %1 did not start").arg(process.arguments().join(u' '));
            return std::nullopt;
        }
        const QByteArray first = lines.takeFirst();
        if (!first.startsWith("ready ")) {
            *why =
                QStringLiteral("helper %1: %2").arg(process.arguments().join(u' '), QString::fromUtf8(first));
            return std::nullopt;
        }
        return first.mid(6).split(' ');
    }

    // Waits for a line equal to `last` and returns every line up to it.
    std::optional<QList<QByteArray>> linesUntil(const QByteArray &last, int timeoutMs) {
        QList<QByteArray> taken;
        const bool found = waitUntil(
            [&] {
                while (!lines.isEmpty() || nextLine()) {
                    const QByteArray line = lines.takeFirst();
                    if (line == last)
                        return true;
                    taken << line;
                }
                return false;
            },
            timeoutMs);
        if (!found)
            return std::nullopt;
        return taken;
    }

    // Every line said so far and not yet taken.
    QList<QByteArray> takeLines() {
        while (nextLine()) {
        }
        return std::exchange(lines, {});
    }

private:
    std::optional<QByteArray> nextLine() {
        buffer += process.readAllStandardOutput();
        const qsizetype end = buffer.indexOf('\n');
        if (end < 0)
            return std::nullopt;
        lines << buffer.left(end);
        buffer.remove(0, end + 1);
        return lines.last();
    }

    QProcess process;
    QByteArray buffer;
    QList<QByteArray> lines;
};

// ---------------------------------------------------------------------------------------
// The service

bool gatewayAccepts() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(gatewayPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool accepted = ::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    ::close(fd);
    return accepted;
}

// `teranocounter --headless` in a HOME of its own, started directly (posix_spawn) with its
// standard output on a Unix packet socket instead of a pipe. The service writes and flushes
// each line with one write(), so each line is one packet, and the kernel stamps every packet
// as it is sent (SO_TIMESTAMPNS). Those stamps say when the service wrote the line, however
// late this side gets round to reading it: a pipe read by a thread here could only say
// when the reader woke, and on a busy machine it wakes for several lines at once. The
// kitchen case reads the gateway's pace from them. The send buffer is made large, so that
// a reader that falls behind never holds the service up.
class Service {
public:
    struct Line {
        qint64 writtenAtNs; // CLOCK_REALTIME, as the kernel stamps packets: for intervals only
        QByteArray text;
    };
    struct Usage {
        qint64 cpuTicks = 0;
        qint64 voluntarySwitches = 0;
        qint64 runNs = 0; // time on a CPU, from the scheduler's own count (finer than ticks)
        int threads = 0;
        qint64 rssKiB = 0;
        qint64 hwmKiB = 0;
    };

    Service() = default;
    ~Service() { stop(); }
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    void setEnvironment(const QString &key, const QString &value) { extra.insert(key, value); }

    bool set(const QStringList &pairs) {
        QStringList arguments;
        for (const QString &pair : pairs)
            arguments << QStringLiteral("--set") << pair;
        QProcess chore;
        chore.setProcessEnvironment(environment());
        chore.start(QStringLiteral(TERANOCOUNTER_BIN), arguments);
        return chore.waitForFinished(30000) && chore.exitStatus() == QProcess::NormalExit &&
               chore.exitCode() == 0;
    }

    // Starts the service; spawnedAtNs() is the moment just before the spawn.
    bool launch() {
        stop();
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0)
            return false;
        const int bufferBytes = 64 << 20;
        if (::setsockopt(fds[1], SOL_SOCKET, SO_SNDBUFFORCE, &bufferBytes, sizeof bufferBytes) != 0)
            ::setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &bufferBytes, sizeof bufferBytes);
        const int on = 1;
        ::setsockopt(fds[0], SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
        const QByteArray errPath = QFile::encodeName(home.filePath(QStringLiteral("stderr.log")));
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
        ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.constData(),
                                           O_WRONLY | O_CREAT | O_APPEND, 0600);

        const QByteArray program = QByteArrayLiteral(TERANOCOUNTER_BIN);
        QByteArray headless = QByteArrayLiteral("--headless");
        char *argv[] = {const_cast<char *>(program.constData()), headless.data(), nullptr};
        QList<QByteArray> envStrings;
        for (const QString &entry : environment().toStringList())
            envStrings << entry.toLocal8Bit();
        std::vector<char *> envp;
        for (QByteArray &entry : envStrings)
            envp.push_back(entry.data());
        envp.push_back(nullptr);

        spawnedNs = nowNs();
        const int spawned = ::posix_spawn(&child, program.constData(), &actions, nullptr, argv, envp.data());
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(fds[1]);
        if (spawned != 0) {
            ::close(fds[0]);
            child = -1;
            return false;
        }
        pidfd = static_cast<int>(::syscall(SYS_pidfd_open, child, 0));
        {
            std::lock_guard lock(mutex);
            lines.clear();
        }
        reader = std::thread([this, fd = fds[0]] { readOutput(fd); });
        return true;
    }

    qint64 spawnedAtNs() const { return spawnedNs; }
    pid_t pid() const { return child; }

    // Tries a connection to the gateway every millisecond until one is accepted; the
    // moment it is, or nothing if the service ended or the deadline passed first.
    std::optional<qint64> waitUntilAccepting(int timeoutMs) {
        const qint64 deadline = nowNs() + qint64(timeoutMs) * 1'000'000;
        while (nowNs() < deadline) {
            if (gatewayAccepts())
                return nowNs();
            pollfd exitWatch{pidfd, POLLIN, 0};
            if (pidfd >= 0 && ::poll(&exitWatch, 1, 1) > 0)
                return std::nullopt; // the service has ended
        }
        return std::nullopt;
    }

    bool hasEnded() {
        pollfd exitWatch{pidfd, POLLIN, 0};
        return pidfd >= 0 && ::poll(&exitWatch, 1, 0) > 0;
    }

    void stop() {
        if (child > 0) {
            ::kill(child, SIGTERM);
            pollfd exitWatch{pidfd, POLLIN, 0};
            if (pidfd < 0 || ::poll(&exitWatch, 1, 5000) <= 0)
                ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
            child = -1;
        }
        if (pidfd >= 0)
            ::close(pidfd);
        pidfd = -1;
        if (reader.joinable())
            reader.join(); // the pipe reaches its end with the process
    }

    std::vector<Line> outputLines() {
        std::lock_guard lock(mutex);
        return lines;
    }

    QString lastError() const {
        QFile file(home.filePath(QStringLiteral("stderr.log")));
        if (!file.open(QIODevice::ReadOnly))
            return {};
        const QList<QByteArray> all = file.readAll().trimmed().split('\n');
        return QString::fromUtf8(all.last());
    }

    Usage usage() const {
        Usage usage;
        QFile stat(QStringLiteral("/proc/%1/stat").arg(child));
        if (stat.open(QIODevice::ReadOnly)) {
            const QByteArray line = stat.readAll();
            // Fields after the command name, which is in parentheses and may hold blanks;
            // utime and stime are the 14th and 15th fields, in clock ticks, for all threads.
            const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
            usage.cpuTicks = fields.value(11).toLongLong() + fields.value(12).toLongLong();
        }
        const QString tasks = QStringLiteral("/proc/%1/task").arg(child);
        for (const QString &task : QDir(tasks).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            QFile status(tasks + u'/' + task + QStringLiteral("/status"));
            if (!status.open(QIODevice::ReadOnly))
                continue;
            ++usage.threads;
            QFile schedstat(tasks + u'/' + task + QStringLiteral("/schedstat"));
            if (schedstat.open(QIODevice::ReadOnly))
                usage.runNs += schedstat.readAll().split(' ').value(0).toLongLong();
            for (const QByteArray &line : status.readAll().split('\n'))
                if (line.startsWith("voluntary_ctxt_switches:"))
                    usage.voluntarySwitches += line.mid(line.indexOf(':') + 1).trimmed().toLongLong();
        }
        QFile status(QStringLiteral("/proc/%1/status").arg(child));
        if (status.open(QIODevice::ReadOnly))
            for (const QByteArray &line : status.readAll().split('\n')) {
                const QByteArray value = line.mid(line.indexOf(':') + 1).trimmed();
                if (line.startsWith("VmRSS:"))
                    usage.rssKiB = value.split(' ').first().toLongLong();
                else if (line.startsWith("VmHWM:"))
                    usage.hwmKiB = value.split(' ').first().toLongLong();
            }
        return usage;
    }

private:
    QProcessEnvironment environment() const {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), home.path());
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral(".config")));
        env.insert(QStringLiteral("XDG_STATE_HOME"), home.filePath(QStringLiteral(".local/state")));
        env.remove(QStringLiteral("DISPLAY"));
        env.remove(QStringLiteral("WAYLAND_DISPLAY"));
        env.remove(QStringLiteral("QT_QPA_PLATFORM"));
        for (auto it = extra.begin(); it != extra.end(); ++it)
            env.insert(it.key(), it.value());
        return env;
    }

    void readOutput(int fd) {
        QByteArray partial;
        char buffer[65536];
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timespec))];
        for (;;) {
            iovec part{buffer, sizeof buffer};
            msghdr message{};
            message.msg_iov = &part;
            message.msg_iovlen = 1;
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            const ssize_t n = ::recvmsg(fd, &message, 0);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            qint64 at = 0;
            for (cmsghdr *c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c))
                if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
                    timespec stamp{};
                    std::memcpy(&stamp, CMSG_DATA(c), sizeof stamp);
                    at = qint64(stamp.tv_sec) * 1'000'000'000 + stamp.tv_nsec;
                }
            partial.append(buffer, n);
            std::lock_guard lock(mutex);
            for (qsizetype end; (end = partial.indexOf('\n')) >= 0;) {
                lines.push_back({at, partial.left(end)});
                partial.remove(0, end + 1);
            }
        }
        ::close(fd);
    }

    QTemporaryDir home;
    QMap<QString, QString> extra;
    pid_t child = -1;
    int pidfd = -1;
    qint64 spawnedNs = 0;
    std::thread reader;
    std::mutex mutex;
    std::vector<Line> lines;
};

// A POS page: one WebSocket client, and every message it received with its arrival time.
struct Pos {
    struct Message {
        qint64 atNs;
        QString text;
    };
    QWebSocket socket;
    std::vector<Message> inbox;

    Pos() {
        QObject::connect(&socket, &QWebSocket::textMessageReceived, [this](const QString &text) {
            inbox.push_back({nowNs(), text});
        });
    }
    bool open(quint16 port) {
        socket.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/").arg(port)));
        return waitUntil([this] { return socket.state() == QAbstractSocket::ConnectedState; }, 5000);
    }
    void send(const QString &frame) {
        socket.sendTextMessage(frame);
        socket.flush();
    }
    // Waits for a message that `expected` accepts; its arrival, or nothing.
    std::optional<qint64> waitFor(const std::function<bool(const QString &)> &expected, int timeoutMs) {
        std::optional<qint64> found;
        waitUntil(
            [&] {
                for (const Message &message : inbox)
                    if (expected(message.text)) {
                        found = message.atNs;
                        return true;
                    }
                return false;
            },
            timeoutMs);
        return found;
    }
};

bool startService(Service &service, Pos &pos, QString *why) {
    if (!service.launch()) {
        *why = QStringLiteral("could not start %1").arg(QStringLiteral(TERANOCOUNTER_BIN));
        return false;
    }
    if (!service.waitUntilAccepting(15000)) {
        *why = QStringLiteral("the service did not accept on port %1: %2")
                   .arg(gatewayPort)
                   .arg(service.lastError());
        return false;
    }
    if (!pos.open(gatewayPort)) {
        *why = QStringLiteral("no WebSocket connection to the gateway");
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------------------
// 1. Payment round trip, and its floor

QByteArray kisRequest(int number) {
    return "\x02PAY" + QByteArray::number(number).rightJustified(6, '0') + '\x03';
}

QString kisAnswerText(int number) {
    return QStringLiteral("승인 완료 ") + QString::number(number).rightJustified(6, u'0');
}

// The floor: what the POS's request costs without the service in between. The same client
// makes the service's own TCP exchange with the same fake terminal (connect, send, first
// reply, answer, close), then one round trip of the same frame over a WebSocket to a bare
// echo server. Same event loop, same sockets, same delay before the terminal's answer.
class Floor {
public:
    explicit Floor(QWebSocket &echo) : echo(echo) {
        QObject::connect(&echo, &QWebSocket::textMessageReceived,
                         [this](const QString &) { doneAtNs = nowNs(); });
    }

    std::optional<qint64> roundTrip(const QByteArray &request, qsizetype answerSize, const QString &frame,
                                    int timeoutMs, qint64 *startedAtNs) {
        doneAtNs = -1;
        auto *terminal = new QTcpSocket;
        auto received = std::make_shared<QByteArray>();
        const qsizetype expected = 1 + answerSize; // the ACK, then the answer
        QObject::connect(terminal, &QTcpSocket::connected, terminal, [terminal, request] {
            terminal->write(request);
            terminal->flush();
        });
        QObject::connect(terminal, &QTcpSocket::readyRead, terminal,
                         [this, terminal, received, expected, frame] {
                             *received += terminal->readAll();
                             if (received->size() < expected)
                                 return;
                             terminal->disconnectFromHost();
                             echo.sendTextMessage(frame);
                             echo.flush();
                         });
        *startedAtNs = nowNs();
        terminal->connectToHost(QHostAddress::LocalHost, kisPort);
        const bool done = waitUntil([this] { return doneAtNs >= 0; }, timeoutMs);
        terminal->deleteLater();
        if (!done)
            return std::nullopt;
        return doneAtNs;
    }

private:
    QWebSocket &echo;
    qint64 doneAtNs = -1;
};

void paymentRoundTrip(int runs, int answerDelayMs) {
    const QString name = QStringLiteral("payment round trip: POS → service → KIS terminal → POS");
    QString why;
    Helper terminal({QStringLiteral("kis-terminal"), QString::number(answerDelayMs)});
    Helper echoServer({QStringLiteral("echo")});
    const auto terminalReady = terminal.waitReady(&why);
    const auto echoReady = terminalReady ? echoServer.waitReady(&why) : std::nullopt;
    if (!echoReady)
        return failedRow(name, why);

    Service service;
    if (!service.set({QStringLiteral("MAIN_INTERFACE=TCP"), QStringLiteral("TCP_IP=127.0.0.1")}))
        return failedRow(name, QStringLiteral("teranocounter --set failed"));
    Pos pos;
    if (!startService(service, pos, &why))
        return failedRow(name, why);
    QWebSocket echo;
    echo.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/").arg(QString::fromLatin1(echoReady->first()))));
    if (!waitUntil([&] { return echo.state() == QAbstractSocket::ConnectedState; }, 5000))
        return failedRow(name, QStringLiteral("no connection to the echo server"));
    Floor floor(echo);

    // Warm-up rounds (not counted) let both paths reach their steady state: libraries
    // paged in, settings file cached, sockets' first allocations done.
    const int warmUp = std::min(50, runs / 10 + 1);
    std::vector<double> viaService, viaFloor;
    int lost = 0;
    qsizetype stray = 0, frameBytes = 0, answerBytes = 0;
    for (int i = 0; i < warmUp + runs; ++i) {
        const QByteArray request = kisRequest(i);
        const QString frame = terminalFrame(QStringLiteral("KIS"), request);
        const qsizetype answerSize = kisResult(cp(kisAnswerText(i))).size();
        frameBytes = frame.toUtf8().size();
        // Alternating which goes first spreads whatever the machine is doing over both.
        for (int leg = 0; leg < 2; ++leg) {
            qint64 startedAt = 0;
            if ((leg == 0) == (i % 2 == 0)) {
                // Only this request's own answer counts: one that went astray earlier must not
                // pass for it.
                const QJsonObject expected = expectedAnswer(kisAnswerText(i), QStringLiteral("KIS7430"));
                pos.inbox.clear();
                startedAt = nowNs();
                pos.send(frame);
                const std::optional<qint64> at =
                    pos.waitFor([&](const QString &text) { return jsonObject(text) == expected; }, 5000);
                stray += qsizetype(pos.inbox.size()) - (at ? 1 : 0);
                if (!at) {
                    ++lost;
                    continue;
                }
                answerBytes = pos.inbox.back().text.toUtf8().size();
                if (i >= warmUp)
                    viaService.push_back(toMs(*at - startedAt));
            } else {
                const std::optional<qint64> at =
                    floor.roundTrip(request, answerSize, frame, 5000, &startedAt);
                if (!at)
                    return failedRow(name, QStringLiteral("the floor exchange got no answer"));
                if (i >= warmUp)
                    viaFloor.push_back(toMs(*at - startedAt));
            }
        }
        if (service.hasEnded())
            return failedRow(name, QStringLiteral("the service ended: %1").arg(service.lastError()));
    }
    if (viaService.empty())
        return failedRow(name, QStringLiteral("no answer reached the POS"));
    const qsizetype held = terminal.takeLines().count("held");

    latencyRow(
        name, viaService,
        QStringLiteral("frame %1 B out, answer %2 B back; terminal answers %3 ms after its first reply "
                       "(held longer %4 times until it was read); %5 unanswered within 5 s, %6 stray "
                       "answers; %7 warm-up rounds not counted")
            .arg(frameBytes)
            .arg(answerBytes)
            .arg(answerDelayMs)
            .arg(held)
            .arg(lost)
            .arg(stray)
            .arg(warmUp));
    latencyRow(QStringLiteral("payment floor: same client, direct KIS exchange + bare WebSocket echo"),
               viaFloor,
               QStringLiteral("same terminal process and delay; echo server in a process of its own; "
                              "interleaved with the row above"));
    const double s50 = percentile(viaService, 0.5), s99 = percentile(viaService, 0.99);
    const double f50 = percentile(viaFloor, 0.5), f99 = percentile(viaFloor, 0.99);
    row(QStringLiteral("payment: service ÷ floor"), qsizetype(viaService.size()),
        QString::number(s50 / f50, 'f', 2) + u'×', QString::number(s99 / f99, 'f', 2) + u'×',
        QStringLiteral("—"),
        QStringLiteral("added by the service: %1 ms at p50, %2 ms at p99")
            .arg(QString::number(s50 - f50, 'f', 3), QString::number(s99 - f99, 'f', 3)));
}

// ---------------------------------------------------------------------------------------
// 2. Serial answer latency

bool holdsOpen(pid_t pid, const QString &device) {
    const QString fdDir = QStringLiteral("/proc/%1/fd").arg(pid);
    for (const QString &fd : QDir(fdDir).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot))
        if (QFile::symLinkTarget(fdDir + u'/' + fd) == device)
            return true;
    return false;
}

void serialAnswerLatency(int runs) {
    const QString name = QStringLiteral("serial answer: last byte written → frame at the POS (TS-132N, pty)");
    QString why;
    devsim::PseudoTerminal terminal;
    QTemporaryDir dir;
    if (!terminal.isValid() || !dir.isValid())
        return failedRow(name, QStringLiteral("no pseudo-terminal"));
    devsim::PortLink link(dir.filePath(QStringLiteral("card-terminal")));
    if (!link.plug(terminal))
        return failedRow(name, QStringLiteral("no link to the pseudo-terminal"));

    Service service;
    service.setEnvironment(QStringLiteral("TERANOCOUNTER_SERIAL_PORTS"), link.path());
    if (!service.set({QStringLiteral("MAIN_INTERFACE=USB"), QStringLiteral("USB_PORT=") + link.path(),
                      QStringLiteral("SERIAL_DEVICE_TYPE=TS-132N")}))
        return failedRow(name, QStringLiteral("teranocounter --set failed"));
    Pos pos;
    if (!startService(service, pos, &why))
        return failedRow(name, why);
    if (!waitUntil([&] { return holdsOpen(service.pid(), terminal.slavePath()); }, 5000))
        return failedRow(name, QStringLiteral("the service did not open the pseudo-terminal"));
    // The POS speaks first: answers go to the page that sent the last frame.
    pos.send(QStringLiteral(R"({"requesttype":"payment","data":[80,65,89]})"));
    if (!terminal.waitForReceived(3, 5000))
        return failedRow(name, QStringLiteral("the request did not reach the line"));

    const int warmUp = std::min(50, runs / 10 + 1);
    std::vector<double> latencies;
    int lost = 0;
    qsizetype stray = 0, answerBytes = 0;
    for (int i = 0; i < warmUp + runs; ++i) {
        const QString text = kisAnswerText(i);
        const QByteArray answer =
            QByteArray::fromHex("02") + "HDR1" + cp(text) + "T2" + QByteArray::fromHex("03");
        const QJsonObject expected = expectedAnswer(text, QStringLiteral("TS-132N"));
        answerBytes = answer.size();
        pos.inbox.clear();
        // Stamped before the write: on a busy machine the writer can be preempted inside
        // write() by the very tasks that carry the bytes on, so a stamp taken after it
        // returns can come after the service has already answered.
        const qint64 writingAt = nowNs();
        if (!terminal.write(answer))
            return failedRow(name, QStringLiteral("the pseudo-terminal took no more bytes"));
        const std::optional<qint64> at =
            pos.waitFor([&](const QString &t) { return jsonObject(t) == expected; }, 5000);
        stray += qsizetype(pos.inbox.size()) - (at ? 1 : 0);
        if (!at) {
            ++lost;
            continue;
        }
        if (i >= warmUp)
            latencies.push_back(toMs(*at - writingAt));
    }
    if (latencies.empty())
        return failedRow(name, QStringLiteral("no answer reached the POS"));
    latencyRow(
        name, latencies,
        QStringLiteral("%1-byte frame in one write; a pty has no line time (9600 baud would add ~1 ms a "
                       "byte); %2 lost, %3 stray; %4 warm-up answers not counted")
            .arg(answerBytes)
            .arg(lost)
            .arg(stray)
            .arg(warmUp));
}

// ---------------------------------------------------------------------------------------
// 3. Kitchen fan-out

// A kitchen order numbered "#0042 " at its start, so the printer can tell which one came.
QString kitchenFrame(int number, quint16 port) {
    QStringList bytes;
    const QByteArray text =
        (QStringLiteral("#%1 ").arg(number, 4, 10, QChar(u'0')) + QStringLiteral("김치찌개 2, 똠얌꿍 1\n"))
            .toUtf8();
    for (const char c : text)
        bytes << QString::number(static_cast<unsigned char>(c));
    return QStringLiteral(R"({"requesttype":"kitchenPrint","data":[%1],"ip":"127.0.0.1","port":%2})")
        .arg(bytes.join(u','))
        .arg(port);
}

void kitchenFanOut(int orders, int printerCount) {
    const QString name =
        QStringLiteral("kitchen fan-out: frame sent → order at its printer (%1 orders, %2 printers)")
            .arg(orders)
            .arg(printerCount);
    const QString paceName =
        QStringLiteral("kitchen fan-out: gateway frame to frame (RECV FIRED!!!: intervals)");
    QString why;
    Helper printers({QStringLiteral("printers"), QString::number(printerCount), QString::number(orders)});
    const auto ports = printers.waitReady(&why);
    if (!ports)
        return failedRow(name, why);

    Service service;
    Pos pos;
    if (!startService(service, pos, &why))
        return failedRow(name, why);

    QStringList frames;
    for (int i = 0; i < orders; ++i)
        frames << kitchenFrame(i, ports->at(i % printerCount).toUShort());
    std::vector<qint64> sentAt(static_cast<size_t>(orders), 0);
    for (int i = 0; i < orders; ++i) {
        sentAt[size_t(i)] = nowNs();
        pos.send(frames[i]);
    }
    const auto report = printers.linesUntil("done", 120000);
    if (!report)
        return failedRow(name, QStringLiteral("not every order reached its printer within 120 s"));

    std::vector<double> latencies;
    qint64 lastArrival = 0;
    for (const QByteArray &line : *report) {
        const QList<QByteArray> words = line.split(' ');
        const int number = words.value(1).toInt();
        const qint64 at = words.value(2).toLongLong();
        if (number < 0 || number >= orders)
            return failedRow(name, QStringLiteral("a printer got an order numbered %1").arg(number));
        latencies.push_back(toMs(at - sentAt[size_t(number)]));
        lastArrival = std::max(lastArrival, at);
    }
    const double allThereMs = toMs(lastArrival - sentAt.front());
    const double sendingMs = toMs(sentAt.back() - sentAt.front());

    int unreachable = 0;
    std::vector<qint64> fired;
    for (const Service::Line &line : service.outputLines())
        if (line.text == recvFired)
            fired.push_back(line.writtenAtNs);
        else if (line.text.startsWith("kitchen printer"))
            ++unreachable;
    latencyRow(name, latencies,
               QStringLiteral("all %1 at their printers %2 ms after the first frame (frames sent in %3 ms); "
                              "%4 printer failures reported")
                   .arg(orders)
                   .arg(QString::number(allThereMs, 'f', 1), QString::number(sendingMs, 'f', 1))
                   .arg(unreachable));

    if (fired.size() < 2)
        return failedRow(paceName, QStringLiteral("fewer than two RECV FIRED!!!: lines"));
    if (std::find(fired.begin(), fired.end(), 0) != fired.end())
        return failedRow(paceName, QStringLiteral("the kernel did not stamp the service's output"));
    std::vector<double> intervals;
    for (size_t i = 1; i < fired.size(); ++i)
        intervals.push_back(toMs(fired[i] - fired[i - 1]));
    const double spanMs = toMs(fired.back() - fired.front());
    latencyRow(paceName, intervals,
               QStringLiteral("the kernel's send stamps of the service's own line writes; first to last "
                              "%1 ms, mean %2 ms")
                   .arg(QString::number(spanMs, 'f', 1),
                        QString::number(spanMs / double(intervals.size()), 'f', 3)));
}

// ---------------------------------------------------------------------------------------
// 4. Footprint

void footprint(int starts, int idleSeconds) {
    const QString startName = QStringLiteral("start-up: spawn → port 49999 accepts");
    QString why;
    Service service;
    if (!service.set({QStringLiteral("MAIN_INTERFACE=TCP"), QStringLiteral("TCP_IP=127.0.0.1")}))
        return failedRow(startName, QStringLiteral("teranocounter --set failed"));

    std::vector<double> startUps;
    for (int i = 0; i < starts; ++i) {
        if (!service.launch())
            return failedRow(startName, QStringLiteral("could not start the service"));
        const std::optional<qint64> acceptedAt = service.waitUntilAccepting(15000);
        if (!acceptedAt)
            return failedRow(startName,
                             QStringLiteral("the gateway never accepted: %1").arg(service.lastError()));
        startUps.push_back(toMs(*acceptedAt - service.spawnedAtNs()));
        service.stop();
    }
    row(startName, qsizetype(startUps.size()), ms(median(startUps)), QStringLiteral("—"),
        ms(*std::max_element(startUps.begin(), startUps.end())),
        QStringLiteral("p50 is the median of %1 starts (min %2 ms); a connection is tried every 1 ms, so "
                       "the figure has that resolution; same settings file each time")
            .arg(starts)
            .arg(ms(*std::min_element(startUps.begin(), startUps.end()))));

    const QString idle = QStringLiteral("idle %1 s").arg(idleSeconds);
    Pos pos;
    if (!startService(service, pos, &why))
        return failedRow(idle, why);
    const Service::Usage before = service.usage();
    keepRunningFor(idleSeconds * 1000); // the measuring window itself: nothing is sent
    const Service::Usage after = service.usage();
    if (service.hasEnded())
        return failedRow(idle, QStringLiteral("the service ended while idle: %1").arg(service.lastError()));
    const double ticksPerSecond = double(::sysconf(_SC_CLK_TCK));
    const double cpuMs = 1000.0 * double(after.cpuTicks - before.cpuTicks) / ticksPerSecond;
    const qint64 switches = after.voluntarySwitches - before.voluntarySwitches;
    const QString dash = QStringLiteral("—");
    row(idle + QStringLiteral(": resident memory (VmRSS)"), 1, dash, dash, dash,
        QStringLiteral("%1 MiB at the end (peak VmHWM %2 MiB); a POS connected, MAIN_INTERFACE=TCP")
            .arg(QString::number(double(after.rssKiB) / 1024, 'f', 1),
                 QString::number(double(after.hwmKiB) / 1024, 'f', 1)));
    row(idle + QStringLiteral(": CPU time (utime+stime)"), 1, dash, dash, dash,
        QStringLiteral("%1 ms = %2 % of one core (clock ticks of %3 ms); the scheduler counts %4 ms on a CPU")
            .arg(QString::number(cpuMs, 'f', 0), QString::number(cpuMs / (10.0 * idleSeconds), 'f', 3),
                 QString::number(1000.0 / ticksPerSecond, 'f', 0),
                 QString::number(toMs(after.runNs - before.runNs), 'f', 3)));
    row(idle + QStringLiteral(": wake-ups (voluntary context switches, all threads)"), 1, dash, dash, dash,
        QStringLiteral("%1 /s (%2 over %3 s, %4 threads)")
            .arg(QString::number(double(switches) / idleSeconds, 'f', 2))
            .arg(switches)
            .arg(idleSeconds)
            .arg(after.threads));
}

} // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    const QString mode = arguments.value(1);
    if (mode == QLatin1String("kis-terminal"))
        return runKisTerminal(arguments.value(2).toInt());
    if (mode == QLatin1String("echo"))
        return runEcho();
    if (mode == QLatin1String("printers"))
        return runPrinters(arguments.value(2).toInt(), arguments.value(3).toInt());

    std::signal(SIGPIPE, SIG_IGN);
    bool delaySet = false;
    const int answerDelayMs = qEnvironmentVariableIntValue("BENCH_KIS_ANSWER_DELAY_MS", &delaySet);
    const int payments = countSetting("BENCH_PAYMENTS", 2000);
    const int serialAnswers = countSetting("BENCH_SERIAL_ANSWERS", 2000);
    const int orders = countSetting("BENCH_ORDERS", 1000);
    const int printerCount = countSetting("BENCH_PRINTERS", 4);
    const int starts = countSetting("BENCH_STARTS", 10);
    const int idleSeconds = countSetting("BENCH_IDLE_SECONDS", 60);

    // BENCH_CASES=payment,serial,kitchen,footprint picks cases; all by default.
    const QStringList cases =
        qEnvironmentVariable("BENCH_CASES", QStringLiteral("payment,serial,kitchen,footprint"))
            .split(u',', Qt::SkipEmptyParts);

    // Another service on the gateway's port would be measured in place of ours.
    if (gatewayAccepts()) {
        std::fprintf(stderr,
                     "bench_service: port %d already accepts connections; run where it is free "
                     "(a network namespace of its own)\n",
                     gatewayPort);
        return 1;
    }
    std::printf("| case | runs | p50 ms | p99 ms | max ms | notes |\n|---|---|---|---|---|---|\n");
    if (cases.contains(QLatin1String("payment"))) {
        progress(QStringLiteral("payment round trip, %1 requests").arg(payments));
        paymentRoundTrip(payments, delaySet && answerDelayMs >= 0 ? answerDelayMs : 1);
    }
    if (cases.contains(QLatin1String("serial"))) {
        progress(QStringLiteral("serial answers, %1").arg(serialAnswers));
        serialAnswerLatency(serialAnswers);
    }
    if (cases.contains(QLatin1String("kitchen"))) {
        progress(QStringLiteral("kitchen fan-out, %1 orders to %2 printers").arg(orders).arg(printerCount));
        kitchenFanOut(orders, printerCount);
    }
    if (cases.contains(QLatin1String("footprint"))) {
        progress(QStringLiteral("footprint: %1 starts, %2 s idle").arg(starts).arg(idleSeconds));
        footprint(starts, idleSeconds);
    }
    return 0;
}
