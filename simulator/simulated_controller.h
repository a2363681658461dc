#ifndef SIMULATOR_SIMULATED_CONTROLLER_H
#define SIMULATOR_SIMULATED_CONTROLLER_H

#include "simulator/simulated_connection.h"

#include <QTcpServer>
#include <QTimer>

namespace s7200::sim
{

/// The simulated controller's server and clock. Lives on one thread with an event loop.
class SimulatedController
{
public:
    /// `options` and `state` must outlive it.
    SimulatedController(const SimulatorOptions& options, SimulatorState* state);

    /// False with a one-line `error` if the address cannot be used.
    bool listen(quint16 port, QString* error);
    quint16 port() const;

private:
    void accept();

    const SimulatorOptions& options;
    SimulatorState* state;
    QTimer liveTimer;
    QTcpServer server; ///< Parent of all connections.
    int accepted = 0;
};

} // namespace s7200::sim

#endif
