#include "simulator/simulator_thread.h"

#include "simulator/simulated_controller.h"

#include <QEventLoop>
#include <QRandomGenerator>
#include <QTimer>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace s7200::sim
{

namespace
{

constexpr int TickMs = SimulatedController::TickMs;
constexpr int TriesForFreePorts = 50;
constexpr int LowestPort = 10240;
constexpr int FirstClientPort = 32768;

using Controllers = std::vector<std::unique_ptr<SimulatedController>>;

} // namespace

struct SimulatorThread::Shared {
    explicit Shared(const SimulatorOptions& simulatorOptions) : options(simulatorOptions)
    {
        for (int i = 0; i < options.count; ++i)
            states.push_back(std::make_unique<SimulatorState>(options.seed + quint32(i)));
    }
    SimulatorState& state(int controller) const
    {
        return *states.at(size_t(controller));
    }

    const SimulatorOptions options;
    std::vector<std::unique_ptr<SimulatorState>> states; ///< One for each controller.
    std::atomic<quint16> port{0};
};

/// Runs the controllers from start() to stop().
class SimulatorThread::Thread
{
public:
    explicit Thread(Shared* shared) : m_shared(shared) {}

    bool startListening(QString* error)
    {
        m_thread = std::thread(&Thread::run, this);
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_tried; });
        if (!m_loop)
            *error = m_error;
        return m_loop != nullptr;
    }

    void stopListening()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_loop)
                QMetaObject::invokeMethod(m_loop, "quit", Qt::QueuedConnection);
        }
        m_thread.join();
    }

private:
    void run()
    {
        QEventLoop events;
        QString error;
        Controllers controllers = listen(&error);
        // One clock for all: a timer each would wake the thread a thousand times as often.
        QTimer clock;
        QObject::connect(&clock, &QTimer::timeout, &clock, [&controllers] {
            for (const auto& controller : controllers)
                controller->tick();
        });
        clock.start(TickMs);
        announce(controllers.empty() ? nullptr : &events, error);
        if (!controllers.empty())
            events.exec();
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_loop = nullptr;
    }

    /// All controllers, or none with an error.
    Controllers listen(QString* error)
    {
        const int wanted = m_shared->port;
        const bool anyRow = wanted == 0 && m_shared->options.count > 1;
        Controllers controllers;
        for (int i = 0; i < (anyRow ? TriesForFreePorts : 1) && controllers.empty(); ++i)
            controllers = listenFrom(anyRow ? likelyFreePort() : wanted, error);
        if (!controllers.empty())
            m_shared->port = controllers.front()->port();
        return controllers;
    }

    /// The system finds a free port, but not a row of them: those that it gives to clients are full
    /// of holes, the ones below are mostly unused.
    int likelyFreePort() const
    {
        const int rows = std::max(FirstClientPort - LowestPort - m_shared->options.count, 1);
        return LowestPort + int(QRandomGenerator::global()->bounded(rows));
    }

    Controllers listenFrom(int port, QString* error)
    {
        Controllers controllers;
        for (const auto& state : m_shared->states) {
            controllers.push_back(
                std::make_unique<SimulatedController>(m_shared->options, state.get()));
            if (port > 0xFFFF || !controllers.back()->listen(quint16(port), error)) {
                controllers.clear();
                break;
            }
            port = controllers.back()->port() + 1;
        }
        return controllers;
    }

    void announce(QEventLoop* runningLoop, const QString& error)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_loop = runningLoop;
        m_error = error;
        m_tried = true;
        m_changed.notify_all();
    }

    Shared* m_shared;
    std::thread m_thread;
    std::mutex m_mutex; ///< Guards what follows.
    std::condition_variable m_changed;
    bool m_tried = false;
    QEventLoop* m_loop = nullptr; ///< While listening.
    QString m_error;
};

SimulatorThread::SimulatorThread(const SimulatorOptions& options)
    : m_shared(std::make_unique<Shared>(options))
{
    m_shared->port = options.port;
}

SimulatorThread::~SimulatorThread()
{
    stop();
}

bool SimulatorThread::start(QString* error)
{
    stop();
    if (!m_faultsSet && !setFaults(m_shared->options.faults, error))
        return false;
    m_thread = std::make_unique<Thread>(m_shared.get());
    if (m_thread->startListening(error))
        return true;
    stop();
    return false;
}

quint16 SimulatorThread::port() const
{
    return m_shared->port;
}

void SimulatorThread::stop()
{
    if (m_thread)
        m_thread->stopListening();
    m_thread.reset();
}

QByteArray SimulatorThread::peek(SimulatorArea area, int byteOrNumber, int bytes,
                                 int controller) const
{
    return m_shared->state(controller)
        .memory.read(area, byteOrNumber * ControllerMemory::elementSize(area), bytes);
}

void SimulatorThread::poke(SimulatorArea area, int byteOrNumber, const QByteArray& bytes,
                           int controller)
{
    m_shared->state(controller)
        .memory.write(area, byteOrNumber * ControllerMemory::elementSize(area), bytes);
}

quint64 SimulatorThread::requestCount() const
{
    quint64 sum = 0;
    for (const auto& state : m_shared->states)
        sum += state->requests;
    return sum;
}

int SimulatorThread::connectionCount() const
{
    int sum = 0;
    for (const auto& state : m_shared->states)
        sum += state->connections;
    return sum;
}

QMap<QString, quint64> SimulatorThread::faultCounts() const
{
    QMap<QString, quint64> sum;
    for (const auto& state : m_shared->states) {
        const QMap<QString, quint64> counts = state->faults.counts();
        for (auto it = counts.begin(); it != counts.end(); ++it)
            sum[it.key()] += it.value();
    }
    return sum;
}

bool SimulatorThread::setFaults(const QStringList& faults, QString* error)
{
    if (!FaultInjector(0).setFaults(faults, error))
        return false;
    const SimulatorOptions& options = m_shared->options;
    for (int i = 0; i < options.count; ++i) {
        const bool faulty = i + 1 >= options.firstFaulty && i + 1 <= options.lastFaulty;
        m_shared->state(i).faults.setFaults(faulty ? faults : QStringList(), error);
    }
    m_faultsSet = true;
    return true;
}

} // namespace s7200::sim
