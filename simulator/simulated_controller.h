#ifndef SIMULATOR_SIMULATED_CONTROLLER_H
#define SIMULATOR_SIMULATED_CONTROLLER_H

#include "simulator/simulated_connection.h"

#include <QTcpServer>

namespace s7200::sim
{

/// One simulated controller's server. Lives on one thread with an event loop.
class SimulatedController
{
public:
    static constexpr int TickMs = SimulatedConnection::TickMs;

    /// `options` and `state` must outlive it.
    SimulatedController(const SimulatorOptions& options, SimulatorState* state);

    /// False with a one-line `error` if the address cannot be used.
    bool listen(quint16 port, QString* error);
    quint16 port() const;

    /// To be called every TickMs: moves the live values on, closes idle connections.
    void tick();

private:
    void accept();
    void waitForDescriptors();

    const SimulatorOptions& m_options;
    SimulatorState* m_state;
    QTcpServer m_server; ///< Parent of all connections.
    int m_accepted = 0;
};

} // namespace s7200::sim

#endif
