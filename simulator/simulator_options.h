#ifndef SIMULATOR_SIMULATOR_OPTIONS_H
#define SIMULATOR_SIMULATOR_OPTIONS_H

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

namespace s7200::wire
{
class FrameTrace;
}

namespace s7200::sim
{

/// How simulated controllers behave.
struct SimulatorOptions {
    QString address = "127.0.0.1"; ///< Address to listen on.
    quint16 port = 0;              ///< Of the first controller. 0: free ones.
    int count = 1;                 ///< Controllers, on consecutive ports.
    bool remote = false;           ///< Take forwarding records of remote access instead of S7 jobs.
    bool liveValues = true;        ///< False: memory changes by writes only.
    int largestPdu = 240;          ///< Most that setup communication grants; kept to anyway.
    std::optional<quint16> tsap;   ///< The only called TSAP that is let in; nothing: any.
    int handshakeMs = 5000;        ///< A connection that is not set up by then is closed,
    int idleMs = 60000;            ///< and so is one on which nothing is said for so long.
    int latencyMs = 0;             ///< Delay of each reply,
    int jitterMs = 0;              ///< and the most that is added to it at random.
    QStringList faults;  ///< As on the command line: KIND[:PROBABILITY|:every N|:address A].
    int firstFaulty = 1; ///< The faults strike these controllers only, counted from 1.
    int lastFaulty = 65535;
    quint32 seed = 1;                  ///< Of everything random; each controller adds its index.
    wire::FrameTrace* trace = nullptr; ///< Not owned; must outlive the simulator.
    /// Gets a line per request; called on the simulator's thread. May be empty.
    std::function<void(const QString&)> log;
};

} // namespace s7200::sim

#endif
