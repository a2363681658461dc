// What many controllers in one thread cost, against simulated controllers in a process of their
// own, as a ratio to bare sockets that exchange the same bytes with them in the same run.

#include "simulator/simulator_process.h"

#include <s7200host/controller.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTcpSocket>
#include <QTimer>

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <vector>

using namespace s7200;
using sim::SimulatorProcess;

namespace
{

constexpr int StartMs = 60000; ///< Longest that anything may take to get going.
constexpr int Words = 100;     ///< Watched: 200 bytes, in two reads.
constexpr int QuickIntervalMs = 100;

[[noreturn]] void fail(const QString& why)
{
    std::fprintf(stderr, "host_bench: %s\n", qPrintable(why));
    std::exit(1);
}

double cpuSeconds()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return double(time.tv_sec) + double(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double residentMb()
{
    QFile file("/proc/self/statm");
    file.open(QIODevice::ReadOnly);
    return file.readAll().split(' ').value(1).toDouble() * 4096 / 1e6;
}

template <typename Condition>
bool waitFor(const Condition& condition, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!condition()) {
        if (clock.elapsed() > timeoutMs)
            return false;
        QTimer::singleShot(5, [] {}); // so that there is something to wait for
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

void waitMs(int ms)
{
    waitFor([] { return false; }, ms);
}

/// Simulated controllers in processes of their own, few in each: one process that polls a thousand
/// connections would be what is measured.
class Farm
{
public:
    /// `faults`: of the first `faulty` in each process.
    explicit Farm(int count, const QStringList& faults = {}, int faulty = 0)
    {
        QStringList options;
        for (const QString& fault : faults)
            options << "--fault" << fault << "--only" << QString("1-%1").arg(faulty);
        for (int made = 0; made < count; made += PerProcess)
            m_processes.emplace_back(new SimulatorProcess(PerProcess, options));
        start();
    }

    void start()
    {
        int port = 10000;
        for (const auto& process : m_processes) {
            if (!process->start(port))
                fail("s7200-sim does not start");
            port = process->port() + PerProcess;
        }
    }

    void kill()
    {
        for (const auto& process : m_processes)
            process->kill();
    }

    /// Meanwhile the event loop runs.
    void startAgain()
    {
        for (const auto& process : m_processes)
            process->startAgain();
        const bool listen = waitFor(
            [this] {
                return std::all_of(m_processes.begin(), m_processes.end(),
                                   [](const auto& process) { return process->isListening(); });
            },
            StartMs);
        if (!listen)
            fail("s7200-sim does not start again");
    }

    quint16 port(int controller) const
    {
        return quint16(m_processes[std::size_t(controller / PerProcess)]->port() +
                       controller % PerProcess);
    }

    static constexpr int PerProcess = 50;

private:
    std::vector<std::unique_ptr<SimulatorProcess>> m_processes;
};

/// What passes in a span of time.
struct Load {
    double coreShare = 0; ///< Of one core.
    double perSecond = 0; ///< Requests.
};

class Fleet
{
public:
    Fleet(int count, const Farm& farm, int words, int intervalMs, int silent = 0) : m_silent(silent)
    {
        for (int i = 0; i < count; ++i) {
            ControllerSettings settings;
            settings.endpoint = {"127.0.0.1", farm.port(i)};
            settings.intervalMs = intervalMs;
            m_controllers.emplace_back(new Controller(settings));
            Controller* const controller = m_controllers.back().get();
            QString error;
            if (!controller->watch(QStringList{QString("VW0x%1").arg(words)}, &error))
                fail(error);
            m_lastCycle.push_back(-1);
            QObject::connect(controller, &Controller::cycleDone, controller,
                             [this, i] { noteCycle(std::size_t(i)); });
        }
        m_clock.start();
    }

    /// Spread over an interval, as plants are switched on one by one.
    void start(int intervalMs)
    {
        for (std::size_t i = 0; i < m_controllers.size(); ++i) {
            Controller* const controller = m_controllers[i].get();
            QTimer::singleShot(int(i) * intervalMs / int(m_controllers.size()), controller,
                               [controller] {
                                   QString error;
                                   if (!controller->start(&error))
                                       fail(error);
                               });
        }
    }

    /// True if all that answer are.
    bool areFresh() const
    {
        for (std::size_t i = 0; i < m_controllers.size(); ++i) {
            if (!isSilent(i) && m_controllers[i]->value(0).quality != Quality::Good)
                return false;
        }
        return true;
    }

    quint64 total(quint64 LinkStatistics::*counter) const
    {
        quint64 sum = 0;
        for (const auto& controller : m_controllers)
            sum += controller->statistics().*counter;
        return sum;
    }

    Load measure(int seconds)
    {
        m_cycleTimes.clear();
        const double cpu = cpuSeconds();
        const quint64 requests = total(&LinkStatistics::requests);
        QElapsedTimer clock;
        clock.start();
        waitMs(seconds * 1000);
        const double elapsed = double(clock.nsecsElapsed()) / 1e9;
        return {(cpuSeconds() - cpu) / elapsed,
                double(total(&LinkStatistics::requests) - requests) / elapsed};
    }

    /// Between the ends of two cycles of the same controller, in ms.
    double cycleTime(double share)
    {
        if (m_cycleTimes.empty())
            return 0;
        std::sort(m_cycleTimes.begin(), m_cycleTimes.end());
        return m_cycleTimes[std::size_t(share * double(m_cycleTimes.size() - 1))];
    }

private:
    bool isSilent(std::size_t index) const
    {
        return int(index) % Farm::PerProcess < m_silent;
    }

    void noteCycle(std::size_t index)
    {
        const double now = double(m_clock.nsecsElapsed()) / 1e6;
        if (m_lastCycle[index] >= 0)
            m_cycleTimes.push_back(now - m_lastCycle[index]);
        m_lastCycle[index] = now;
    }

    const int m_silent; ///< Of each process.
    std::vector<std::unique_ptr<Controller>> m_controllers;
    QElapsedTimer m_clock;
    std::vector<double> m_lastCycle;
    std::vector<double> m_cycleTimes;
};

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
    const Load bare = measureBare(count, farm, Words, 2, 1000, seconds);
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
    rlimit files = {};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max; // the simulators inherit it
    setrlimit(RLIMIT_NOFILE, &files);
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
