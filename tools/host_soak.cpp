// Runs controllers for hours against simulated ones that spoil replies at low rates and are killed
// and started again at random: everything has to be fresh again each time, without growing.

#include "simulator/simulator_process.h"

#include <s7200host/controller.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QTimer>

#include <sys/resource.h>

#include <cstdio>
#include <random>

using namespace s7200;
using sim::SimulatorProcess;

namespace
{

constexpr int PerProcess = 5;
constexpr int FreshMs = 60000; ///< Longest that a controller may take after its return.
constexpr const char* Faults[] = {
    "lost",         "late",       "doubled",           "truncated",     "wrong-reference",
    "wrong-length", "split",      "error-class",       "item-error",    "empty-tpdu-first",
    "coalesced",    "corrupted",  "close-mid-frame",   "silent-accept", "garbage-confirm",
    "banner",       "disconnect", "refuse-connection", "refuse-setup"};

[[noreturn]] void fail(const QString& why)
{
    std::fprintf(stderr, "host_soak: %s\n", qPrintable(why));
    std::exit(1);
}

double residentKb()
{
    QFile file("/proc/self/statm");
    file.open(QIODevice::ReadOnly);
    return file.readAll().split(' ').value(1).toDouble() * 4.096;
}

int openFiles()
{
    return int(QDir("/proc/self/fd").entryList(QDir::Files | QDir::System).size());
}

/// Simulated controllers of one process with the controllers that talk to them.
class Group
{
public:
    Group(int number, double rate) : m_simulator(PerProcess, options(number, rate))
    {
        if (!m_simulator.start())
            fail("s7200-sim does not start");
        for (int i = 0; i < PerProcess; ++i) {
            ControllerSettings settings;
            settings.endpoint = {"127.0.0.1", quint16(m_simulator.port() + i)};
            settings.timeoutMs = 300;
            m_controllers.emplace_back(new Controller(settings));
            QString error;
            if (!m_controllers.back()->watch(
                    QStringList{"VW0x100", "MW0", "TV5", "VW1000", "VW1200"}, &error) ||
                !m_controllers.back()->start(&error))
                fail(error);
        }
        m_returned.start();
    }

    void kill()
    {
        m_simulator.kill();
    }

    void restart()
    {
        if (!m_simulator.start())
            fail("s7200-sim does not start again");
        m_returned.start();
        m_fresh.assign(PerProcess, false);
    }

    /// Looks which are fresh; true once all were since the last restart.
    bool areFresh()
    {
        for (std::size_t i = 0; i < m_controllers.size(); ++i) {
            bool good = true;
            for (int k = 0; k < int(m_controllers[i]->watched().size()); ++k)
                good = good && m_controllers[i]->value(k).quality == Quality::Good;
            m_fresh[i] = m_fresh[i] || good;
        }
        const bool all = std::find(m_fresh.begin(), m_fresh.end(), false) == m_fresh.end();
        if (!all && m_returned.elapsed() > FreshMs)
            fail(QString("port %1: not all fresh %2 s after the return")
                     .arg(m_simulator.port())
                     .arg(FreshMs / 1000));
        return all;
    }

    quint64 total(quint64 LinkStatistics::*counter) const
    {
        quint64 sum = 0;
        for (const auto& controller : m_controllers)
            sum += controller->statistics().*counter;
        return sum;
    }

private:
    static QStringList options(int number, double rate)
    {
        QStringList list{"--seed", QString::number(number)};
        for (const char* fault : Faults)
            list << "--fault" << QString("%1:%2").arg(fault).arg(rate);
        return list;
    }

    SimulatorProcess m_simulator;
    std::vector<std::unique_ptr<Controller>> m_controllers;
    std::vector<bool> m_fresh = std::vector<bool>(PerProcess, false);
    QElapsedTimer m_returned;
};

/// Everything that happens, by one timer.
class Soak
{
public:
    Soak(int controllers, double rate, int seconds, quint32 seed)
        : m_seconds(seconds), m_random(seed)
    {
        for (int i = 0; i < controllers / PerProcess; ++i)
            m_groups.emplace_back(new Group(i + 1, rate));
        m_clock.start();
        m_timer.callOnTimeout([this] { step(); });
        m_timer.start(100);
    }

private:
    void step()
    {
        bool all = true;
        for (const auto& group : m_groups)
            all = (group.get() == m_gone || group->areFresh()) && all;
        const qint64 now = m_clock.elapsed();
        if (m_gone && now >= m_next) {
            m_gone->restart();
            m_gone = nullptr;
            m_next = now + below(3000);
        } else if (!m_gone && all && now >= m_seconds * 1000) {
            report();
            QCoreApplication::exit(0);
        } else if (!m_gone && all && now >= m_next) {
            m_gone = m_groups[std::size_t(below(int(m_groups.size())))].get();
            m_gone->kill();
            ++m_kills;
            m_next = now + below(5000);
        }
        if (now >= m_nextReport && all && !m_gone) {
            m_nextReport = now + 60000;
            report();
        }
    }

    int below(int limit)
    {
        return std::uniform_int_distribution<int>(0, limit - 1)(m_random);
    }

    void report()
    {
        quint64 sums[4] = {};
        for (const auto& group : m_groups) {
            sums[0] += group->total(&LinkStatistics::cycles);
            sums[1] += group->total(&LinkStatistics::connections);
            sums[2] += group->total(&LinkStatistics::retries);
            sums[3] += group->total(&LinkStatistics::linkLosses);
        }
        std::printf("%5lld s: %d kills, %llu cycles, %llu connections, %llu retries, %llu losses; "
                    "%.0f kB, %d open files\n",
                    static_cast<long long>(m_clock.elapsed() / 1000), m_kills,
                    static_cast<unsigned long long>(sums[0]),
                    static_cast<unsigned long long>(sums[1]),
                    static_cast<unsigned long long>(sums[2]),
                    static_cast<unsigned long long>(sums[3]), residentKb(), openFiles());
        std::fflush(stdout);
    }

    const int m_seconds;
    std::mt19937 m_random;
    std::vector<std::unique_ptr<Group>> m_groups;
    Group* m_gone = nullptr;
    QElapsedTimer m_clock;
    QTimer m_timer;
    qint64 m_next = 0;
    qint64 m_nextReport = 5000;
    int m_kills = 0;
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Controllers against simulated ones with all faults that are killed and come back.\n"
        "Prints a line a minute; ends with status 1 when one is not fresh again in time.");
    parser.addHelpOption();
    parser.addOption({"controllers", "So many, five to a process. Default: 50", "N", "50"});
    parser.addOption({"rate", "Probability of each fault. Default: 0.001", "P", "0.001"});
    parser.addOption({"seconds", "How long. Default: 3600", "S", "3600"});
    parser.addOption({"seed", "Of who is killed when. Default: 1", "N", "1"});
    parser.process(application);
    const int controllers = parser.value("controllers").toInt();
    const int seconds = parser.value("seconds").toInt();
    if (controllers < PerProcess || seconds < 1)
        fail("--controllers takes 5 or more, --seconds 1 or more");
    Soak soak(controllers, parser.value("rate").toDouble(), seconds, parser.value("seed").toUInt());
    return QCoreApplication::exec();
}
