#ifndef BENCH_FLEET_H
#define BENCH_FLEET_H

/// Many simulated controllers, and as many objects of the host library that read them.

#include "simulator/simulator_process.h"

#include <s7200host/controller.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTimer>

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

namespace s7200::bench
{

using sim::SimulatorProcess;

constexpr int StartMs = 60000; ///< Longest that anything may take to get going.

[[noreturn]] inline void fail(const QString& why)
{
    std::fprintf(stderr, "host_bench: %s\n", qPrintable(why));
    std::exit(1);
}

inline double cpuSeconds()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return double(time.tv_sec) + double(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

inline double residentMb()
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

inline void waitMs(int ms)
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

} // namespace s7200::bench

#endif
