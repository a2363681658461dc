#ifndef SIMULATOR_SIMULATOR_THREAD_H
#define SIMULATOR_SIMULATOR_THREAD_H

#include "simulator/controller_memory.h"
#include "simulator/simulator_options.h"

#include <QMap>

#include <memory>

namespace s7200::sim
{

/// Simulated controllers behind communication modules, their servers on one thread of their own.
/// All functions may be called from any thread, start() and stop() from one at a time.
/// A QCoreApplication must exist.
class SimulatorThread
{
public:
    explicit SimulatorThread(const SimulatorOptions& options);
    ~SimulatorThread(); ///< Stops.

    /// Listens. False with a one-line `error` if the address cannot be used or a fault text is
    /// wrong. After stop() it may be started again, on the same ports and with its memory kept.
    bool start(QString* error);

    /// The port that the first controller listens on, or listened on last.
    quint16 port() const;

    /// Closes all listeners and connections; returns when that is done.
    void stop();

    /// Reads and writes memory as the controller's own program could, inputs and status bytes
    /// included; a live value that is poked stands still. `byteOrNumber` is a byte address, or the
    /// number of the first timer (5 bytes each) or counter (3 bytes each). What lies outside reads
    /// as 0x00 and is not written. `controller` counts from 0 and must exist.
    QByteArray peek(SimulatorArea area, int byteOrNumber, int bytes, int controller = 0) const;
    void poke(SimulatorArea area, int byteOrNumber, const QByteArray& bytes, int controller = 0);

    /// Of all controllers together.
    quint64 requestCount() const; ///< Whole requests received since construction, any kind.
    int connectionCount() const;  ///< Connections open now.

    /// Faults really injected since construction, by kind; kinds that never happened are absent.
    QMap<QString, quint64> faultCounts() const;

    /// Replaces the faults at run time, none when empty. False with a one-line `error`, and the
    /// old faults kept, when a text is wrong.
    bool setFaults(const QStringList& faults, QString* error);

private:
    class Thread;
    struct Shared;
    std::unique_ptr<Shared> m_shared;
    std::unique_ptr<Thread> m_thread;
    bool m_faultsSet = false; ///< setFaults() has replaced the options' faults.
};

} // namespace s7200::sim

#endif
