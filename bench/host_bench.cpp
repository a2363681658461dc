// What many controllers in one thread cost, against simulated controllers in a process of their
// own, as a ratio to bare sockets that exchange the same bytes with them in the same run.

#include "bench/fleet.h"
#include "wire/descriptor_limit.h"

#include <QCommandLineParser>
#include <QTcpSocket>

using namespace s7200;
using namespace s7200::bench;

namespace
{

constexpr int Words = 100; ///< Watched: 200 bytes, in one read.
constexpr int QuickIntervalMs = 100;

/// Sockets that shake hands and then ask for the same bytes, driven by a timer each and nothing
/// else: no driver, no checks.
Load measureBare(int count, const Farm& farm, int bytesPerRead, int readsPerTick, int intervalMs,
                 int seconds)
{
    const QByteArray connect = QByteArray::fromHex("0300001611E00000000100C00109C1021000C2021100");
    const QByteArray setup =
        QByteArray::fromHex("0300001902F08032010000010800080000F0000001000100F0");
    QByteArray read = QByteArray::fromHex("0300001F02F080320100000001000E00000401120A1002") +
                      char(0) + char(bytesPerRead) + QByteArray::fromHex("000184000000");
    struct Client {
        QTcpSocket socket;
        QTimer timer;
        int step = 0;
        int left = 0;
        int received = 0;
    };
    std::vector<std::unique_ptr<Client>> clients;
    quint64 requests = 0;
    int up = 0;
    for (int i = 0; i < count; ++i) {
        clients.emplace_back(new Client);
        Client* const client = clients.back().get();
        const auto ask = [=, &requests] {
            ++requests;
            client->socket.write(read);
            client->socket.flush();
        };
        QObject::connect(&client->socket, &QTcpSocket::connected, [=] {
            client->socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
            client->socket.write(connect);
        });
        QObject::connect(&client->socket, &QTcpSocket::readyRead, [=, &up] {
            client->received += int(client->socket.readAll().size());
            const int wanted = client->step == 0 ? 22 : client->step == 1 ? 27 : 25 + bytesPerRead;
            if (client->received < wanted)
                return;
            client->received = 0;
            if (client->step++ == 0)
                client->socket.write(setup);
            else if (client->step == 2)
                ++up;
            else if (--client->left > 0)
                ask();
        });
        client->timer.setTimerType(Qt::PreciseTimer);
        QObject::connect(&client->timer, &QTimer::timeout, [=] {
            client->left = readsPerTick;
            ask();
        });
        client->socket.connectToHost("127.0.0.1", farm.port(i));
    }
    if (!waitFor([&] { return up == count; }, StartMs))
        fail("bare sockets are not served");
    for (int i = 0; i < count; ++i) {
        Client* const client = clients[std::size_t(i)].get();
        QTimer::singleShot(i * intervalMs / count, [=] { client->timer.start(intervalMs); });
    }
    waitMs(intervalMs + 500);
    const double cpu = cpuSeconds();
    requests = 0;
    QElapsedTimer clock;
    clock.start();
    waitMs(seconds * 1000);
    const double elapsed = double(clock.nsecsElapsed()) / 1e9;
    return {(cpuSeconds() - cpu) / elapsed, double(requests) / elapsed};
}

void print(const char* what, const Load& load, const Load& bare)
{
    const double perRequest = load.coreShare / load.perSecond * 1e6;
    const double perBare = bare.coreShare / bare.perSecond * 1e6;
    std::printf("%s: %.0f requests/s, %.1f %% of a core, %.1f us a request; bare sockets: %.0f "
                "requests/s, %.1f %%, %.1f us; ratio %.2f\n",
                what, load.perSecond, 100 * load.coreShare, perRequest, bare.perSecond,
                100 * bare.coreShare, perBare, perRequest / perBare);
    std::fflush(stdout);
}

void measureSlow(int count, int seconds)
{
    Farm farm(count);
    const Load bare = measureBare(count, farm, Words, 1, 1000, seconds);
    const double before = residentMb();
    Fleet fleet(count, farm, Words, 1000);
    fleet.start(1000);
    if (!waitFor([&] { return fleet.areFresh(); }, StartMs))
        fail("not all controllers become fresh");
    const quint64 lateBefore = fleet.total(&LinkStatistics::lateCycles);
    const quint64 cyclesBefore = fleet.total(&LinkStatistics::cycles);
    print("200 bytes a second each", fleet.measure(seconds), bare);
    std::printf(
        "  late cycles: %llu of %llu; memory: %.0f MB, %.0f kB a controller\n",
        static_cast<unsigned long long>(fleet.total(&LinkStatistics::lateCycles) - lateBefore),
        static_cast<unsigned long long>(fleet.total(&LinkStatistics::cycles) - cyclesBefore),
        residentMb(), (residentMb() - before) * 1e3 / count);
    // All gone for so long that the attempts are as rare as they get, and back.
    farm.kill();
    waitMs(25000);
    const quint64 connections = fleet.total(&LinkStatistics::connections);
    farm.startAgain();
    QElapsedTimer clock;
    clock.start();
    quint64 last = connections;
    quint64 most = 0;
    qint64 lookedAt = 0;
    const bool back = waitFor(
        [&] {
            if (clock.elapsed() >= lookedAt + 100) {
                lookedAt = clock.elapsed();
                const quint64 now = fleet.total(&LinkStatistics::connections);
                most = std::max(most, now - last);
                last = now;
            }
            return fleet.areFresh();
        },
        StartMs);
    std::printf("all gone and back: %s after %.1f s; most connections in 0.1 s: %llu\n",
                back ? "everything fresh" : "NOT everything fresh", double(clock.elapsed()) / 1e3,
                static_cast<unsigned long long>(most));
    std::fflush(stdout);
}

void measureQuick(int count, int seconds)
{
    Farm farm(count);
    const Load bare = measureBare(count, farm, Words, 1, QuickIntervalMs, seconds);
    Fleet fleet(count, farm, Words / 2, QuickIntervalMs);
    fleet.start(QuickIntervalMs);
    if (!waitFor([&] { return fleet.areFresh(); }, StartMs))
        fail("not all controllers become fresh");
    print("100 bytes ten times a second each", fleet.measure(seconds), bare);
}

void measureSilent(int count, int seconds)
{
    const int silent = Farm::PerProcess * 3 / 10;
    double healthy = 0;
    for (const bool some : {false, true}) {
        Farm farm(count, some ? QStringList{"lost"} : QStringList{}, silent);
        Fleet fleet(count, farm, Words, 1000, some ? silent : 0);
        fleet.start(1000);
        if (!waitFor([&] { return fleet.areFresh(); }, StartMs))
            fail("not all controllers become fresh");
        fleet.measure(seconds);
        const double p99 = fleet.cycleTime(0.99);
        if (some)
            std::printf("%d of %d silent: p99 cycle time of the others %.1f ms, %+.1f %%\n",
                        count * 3 / 10, count, p99, 100 * (p99 / healthy - 1));
        else
            healthy = p99;
    }
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription("What many controllers in one thread cost.");
    parser.addHelpOption();
    parser.addOption({"controllers", "So many. Default: 1000", "N", "1000"});
    parser.addOption({"seconds", "Of each measurement. Default: 10", "S", "10"});
    parser.addPositionalArgument("what", "slow, quick or silent; all without one.", "[what...]");
    parser.process(application);
    const int count = parser.value("controllers").toInt();
    const int seconds = parser.value("seconds").toInt();
    if (count < Farm::PerProcess || count > 20000 || seconds < 1)
        fail("--controllers takes 50 to 20000, --seconds 1 or more");
    const QString missing = wire::raiseDescriptorLimit(count, 2); // the simulators inherit it
    if (!missing.isEmpty())
        fail(missing);
    QStringList wanted = parser.positionalArguments();
    if (wanted.isEmpty())
        wanted = QStringList{"slow", "quick", "silent"};
    for (const QString& what : std::as_const(wanted)) {
        if (what == "slow")
            measureSlow(count, seconds);
        else if (what == "quick")
            measureQuick(count, seconds);
        else if (what == "silent")
            measureSilent(count, seconds);
        else
            fail(what + " is none of slow, quick, silent");
    }
    return 0;
}
