#include "simulator/simulator_thread.h"

#include "simulator/simulated_controller.h"

#include <QEventLoop>

#include <condition_variable>
#include <mutex>
#include <thread>

namespace s7200::sim
{

struct SimulatorThread::Shared {
    explicit Shared(const SimulatorOptions& simulatorOptions)
        : options(simulatorOptions), state(options.seed)
    {
    }
    const SimulatorOptions options;
    SimulatorState state;
    std::atomic<quint16> port{0};
};

/// Runs one controller from start() to stop().
class SimulatorThread::Thread
{
public:
    explicit Thread(Shared* sharedWithOwner) : shared(sharedWithOwner) {}

    bool startListening(QString* error)
    {
        thread = std::thread(&Thread::run, this);
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return tried; });
        if (!loop)
            *error = listenError;
        return loop != nullptr;
    }

    void stopListening()
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            if (loop)
                QMetaObject::invokeMethod(loop, "quit", Qt::QueuedConnection);
        }
        thread.join();
    }

private:
    void run()
    {
        SimulatedController controller(shared->options, &shared->state);
        QEventLoop events;
        QString error;
        const bool listening = controller.listen(shared->port, &error);
        if (listening)
            shared->port = controller.port();
        announce(listening ? &events : nullptr, error);
        if (listening)
            events.exec();
        const std::lock_guard<std::mutex> lock(mutex);
        loop = nullptr;
    }

    void announce(QEventLoop* runningLoop, const QString& error)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        loop = runningLoop;
        listenError = error;
        tried = true;
        changed.notify_all();
    }

    Shared* shared;
    std::thread thread;
    std::mutex mutex; ///< Guards what follows.
    std::condition_variable changed;
    bool tried = false;
    QEventLoop* loop = nullptr; ///< While listening.
    QString listenError;
};

SimulatorThread::SimulatorThread(const SimulatorOptions& options)
    : shared(std::make_unique<Shared>(options))
{
    shared->port = options.port;
}

SimulatorThread::~SimulatorThread()
{
    stop();
}

bool SimulatorThread::start(QString* error)
{
    stop();
    if (!faultsSet && !setFaults(shared->options.faults, error))
        return false;
    thread = std::make_unique<Thread>(shared.get());
    if (thread->startListening(error))
        return true;
    stop();
    return false;
}

quint16 SimulatorThread::port() const
{
    return shared->port;
}

void SimulatorThread::stop()
{
    if (thread)
        thread->stopListening();
    thread.reset();
}

QByteArray SimulatorThread::peek(SimulatorArea area, int byteOrNumber, int bytes) const
{
    return shared->state.memory.read(area, byteOrNumber * ControllerMemory::elementSize(area),
                                     bytes);
}

void SimulatorThread::poke(SimulatorArea area, int byteOrNumber, const QByteArray& bytes)
{
    shared->state.memory.write(area, byteOrNumber * ControllerMemory::elementSize(area), bytes);
}

quint64 SimulatorThread::requestCount() const
{
    return shared->state.requests;
}

int SimulatorThread::connectionCount() const
{
    return shared->state.connections;
}

QMap<QString, quint64> SimulatorThread::faultCounts() const
{
    return shared->state.faults.counts();
}

bool SimulatorThread::setFaults(const QStringList& faults, QString* error)
{
    if (!shared->state.faults.setFaults(faults, error))
        return false;
    faultsSet = true;
    return true;
}

} // namespace s7200::sim
