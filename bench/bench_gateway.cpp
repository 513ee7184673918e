// How long a kitchen order takes from the POS's frame to the printer's socket, and what
// parsing a request costs as its "data" grows. In-process gateway on an ephemeral port,
// a fake printer on loopback, a real WebSocket client.
#include "common/userdefaults.h"
#include "devsim/printer.h"
#include "gateway/request.h"
#include "gateway/websocketviewcontroller.h"
#include "posclient.h"
#include "wait.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>

namespace {

class NullLabel : public TextLabel {
public:
    void setStringValue(const QString &) override {}
    void setTextColor(Qt::GlobalColor) override {}
};

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    const size_t index =
        std::min(values.size() - 1, static_cast<size_t>(p * static_cast<double>(values.size())));
    return values[index];
}

void kitchenLatency(quint16 gatewayPort, int orders, int burst) {
    devsim::Printer printer;
    printer.listen();
    PosClient pos;
    pos.open(gatewayPort);
    std::vector<double> latencies;
    QElapsedTimer wall;
    wall.start();
    for (int sent = 0; sent < orders; sent += burst) {
        const qsizetype before = printer.connections().size();
        const qint64 sentAt = printer.nowMs();
        for (int i = 0; i < burst; ++i)
            pos.send(kitchenOrderFrame(QStringLiteral("주문 %1: 김치찌개 2, 똠얌꿍 1\n").arg(sent + i),
                                       printer.port()));
        waitUntil(
            [&] {
                int arrived = 0;
                for (qsizetype i = before; i < printer.connections().size(); ++i)
                    arrived += printer.connections()[i].received.endsWith('\n');
                return arrived == burst;
            },
            10000);
        for (qsizetype i = before; i < printer.connections().size(); ++i)
            latencies.push_back(double(printer.connections()[i].lastByteAtMs - sentAt));
    }
    std::printf("| kitchen order, frame to printer (burst %3d) | %6d | %8.1f | %8.1f | %8.1f |\n", burst,
                orders, percentile(latencies, 0.5), percentile(latencies, 0.95), percentile(latencies, 1.0));
    waitUntil([&] { return printer.closedCount() == int(printer.connections().size()); }, 5000);
}

QString frameWithData(int dataBytes) {
    QByteArray frame = R"({"requesttype":"print","data":[)";
    frame.reserve(dataBytes * 4 + 64);
    for (int i = 0; i < dataBytes; ++i) {
        if (i)
            frame += ',';
        frame += QByteArray::number(i % 256);
    }
    frame += "]}";
    return QString::fromLatin1(frame);
}

void parseCost(int dataBytes, int rounds) {
    const QString frame = frameWithData(dataBytes);
    std::vector<double> times;
    for (int r = 0; r < rounds; ++r) {
        QElapsedTimer clock;
        clock.start();
        const auto request = parseRequest(frame);
        times.push_back(double(clock.nsecsElapsed()) / 1e6);
        if (std::get<ParsedRequest>(request).internal.value("data").toByteArray().size() != dataBytes)
            std::printf("unexpected size\n");
    }
    std::printf("| parse request, data of %8d bytes          | %6d | %8.2f | %8.2f | %8.2f |\n", dataBytes,
                rounds, percentile(times, 0.5), percentile(times, 0.95), percentile(times, 1.0));
}

} // namespace

int main(int argc, char **argv) {
    QTemporaryDir config;
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(config.path()));
    QCoreApplication app(argc, argv);

    NullLabel label;
    WebSocketViewController gateway(0);
    gateway.websocketLabel = &label;
    gateway.viewDidLoad();

    std::printf("| case | runs | p50 ms | p95 ms | max ms |\n|---|---|---|---|---|\n");
    kitchenLatency(gateway.server.serverPort(), 200, 1);
    kitchenLatency(gateway.server.serverPort(), 200, 10);
    kitchenLatency(gateway.server.serverPort(), 200, 50);
    parseCost(1024, 200);
    parseCost(64 * 1024, 50);
    parseCost(1024 * 1024, 50);
    parseCost(16 * 1024 * 1024, 10);
    return 0;
}
