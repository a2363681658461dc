#ifndef SIMULATOR_SIMULATOR_THREAD_H
#define SIMULATOR_SIMULATOR_THREAD_H

#include "simulator/controller_memory.h"

#include <QMap>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

namespace s7200::wire
{
class FrameTrace;
}

namespace s7200::sim
{

/// How a simulated controller behaves.
struct SimulatorOptions {
    QString address = "127.0.0.1"; ///< Address to listen on.
    quint16 port = 0;              ///< 0: a free port.
    bool remote = false;           ///< Take forwarding records of remote access instead of S7 jobs.
    bool liveValues = true;        ///< False: memory changes by writes only.
    int largestPdu = 240;          ///< Most that setup communication grants.
    QStringList faults; ///< As on the command line: KIND[:PROBABILITY|:every N|:address A].
    quint32 seed = 1;   ///< Of everything random about the faults.
    wire::FrameTrace* trace = nullptr; ///< Not owned; must outlive the simulator.
    /// Gets a line per request; called on the simulator's thread. May be empty.
    std::function<void(const QString&)> log;
};

/// A simulated controller behind a communication module, its server on a thread of its own.
/// All functions may be called from any thread, start() and stop() from one at a time.
/// A QCoreApplication must exist.
class SimulatorThread
{
public:
    explicit SimulatorThread(const SimulatorOptions& options);
    ~SimulatorThread(); ///< Stops.

    /// Listens. False with a one-line `error` if the address cannot be used or a fault text is
    /// wrong. After stop() it may be started again, on the same port and with its memory kept.
    bool start(QString* error);

    /// The port that it listens on, or listened on last.
    quint16 port() const;

    /// Closes the listener and all connections; returns when that is done.
    void stop();

    /// Reads and writes memory as the controller's own program could, inputs and status bytes
    /// included; a live value that is poked stands still. `byteOrNumber` is a byte address, or the
    /// number of the first timer (5 bytes each) or counter (3 bytes each). What lies outside reads
    /// as 0x00 and is not written.
    QByteArray peek(SimulatorArea area, int byteOrNumber, int bytes) const;
    void poke(SimulatorArea area, int byteOrNumber, const QByteArray& bytes);

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
    std::unique_ptr<Shared> shared;
    std::unique_ptr<Thread> thread;
    bool faultsSet = false; ///< setFaults() has replaced the options' faults.
};

} // namespace s7200::sim

#endif
