#include "simulator/simulated_controller.h"

#include <QHostAddress>
#include <QTcpSocket>
#include <QTimer>

#include <sys/resource.h>

namespace s7200::sim
{

namespace
{

constexpr int MostConnections = 64;
constexpr int SpareDescriptors = 8;
constexpr int PauseMs = 500;

/// True when hardly any number above this one is left to the process: the system gives the lowest.
bool isNearLimit(qintptr descriptor)
{
    rlimit limit = {};
    return getrlimit(RLIMIT_NOFILE, &limit) == 0 &&
           rlim_t(descriptor) + SpareDescriptors >= limit.rlim_cur;
}

} // namespace

SimulatedController::SimulatedController(const SimulatorOptions& options, SimulatorState* state)
    : m_options(options), m_state(state)
{
    QObject::connect(&m_server, &QTcpServer::newConnection, &m_server, [this] { accept(); });
    QObject::connect(&m_server, &QTcpServer::acceptError, &m_server,
                     [this] { waitForDescriptors(); });
    if (m_options.liveValues)
        m_state->memory.tick(); // what lives is never seen at rest
}

bool SimulatedController::listen(quint16 port, QString* error)
{
    const QHostAddress address(m_options.address);
    if (address.isNull()) {
        *error = QStringLiteral("\"%1\" is not an IP address").arg(m_options.address);
        return false;
    }
    if (!m_server.listen(address, port)) {
        *error = QStringLiteral("cannot listen on %1:%2: %3")
                     .arg(m_options.address)
                     .arg(port)
                     .arg(m_server.errorString());
        return false;
    }
    return true;
}

quint16 SimulatedController::port() const
{
    return m_server.serverPort();
}

void SimulatedController::tick()
{
    if (m_options.liveValues)
        m_state->memory.tick();
    for (QObject* child : m_server.children()) {
        if (auto* connection = dynamic_cast<SimulatedConnection*>(child))
            connection->tick();
    }
}

void SimulatedController::accept()
{
    while (QTcpSocket* socket = m_server.nextPendingConnection()) {
        // Without spare descriptors the next accept would fail, and its client wait in vain.
        if (m_state->connections >= MostConnections || isNearLimit(socket->socketDescriptor()))
            delete socket;
        else
            new SimulatedConnection(socket, m_accepted++, m_options, m_state, &m_server);
    }
}

// The server has stopped accepting by itself, and would for good; a client that waits would
// otherwise wake it all the time.
void SimulatedController::waitForDescriptors()
{
    m_server.pauseAccepting();
    QTimer::singleShot(PauseMs, &m_server, [this] { m_server.resumeAccepting(); });
}

} // namespace s7200::sim
