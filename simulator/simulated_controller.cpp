#include "simulator/simulated_controller.h"

#include <QHostAddress>
#include <QTcpSocket>

namespace s7200::sim
{

namespace
{

constexpr int TickMilliseconds = 100;
constexpr int MostConnections = 64;

} // namespace

SimulatedController::SimulatedController(const SimulatorOptions& simulatorOptions,
                                         SimulatorState* sharedState)
    : options(simulatorOptions), state(sharedState)
{
    QObject::connect(&liveTimer, &QTimer::timeout, &server, [this] { state->memory.tick(); });
    QObject::connect(&server, &QTcpServer::newConnection, &server, [this] { accept(); });
}

bool SimulatedController::listen(quint16 port, QString* error)
{
    const QHostAddress address(options.address);
    if (address.isNull()) {
        *error = QStringLiteral("\"%1\" is not an IP address").arg(options.address);
        return false;
    }
    if (!server.listen(address, port)) {
        *error = QStringLiteral("cannot listen on %1:%2: %3")
                     .arg(options.address)
                     .arg(port)
                     .arg(server.errorString());
        return false;
    }
    if (options.liveValues)
        liveTimer.start(TickMilliseconds);
    return true;
}

quint16 SimulatedController::port() const
{
    return server.serverPort();
}

void SimulatedController::accept()
{
    while (QTcpSocket* socket = server.nextPendingConnection()) {
        if (state->connections >= MostConnections)
            delete socket;
        else
            new SimulatedConnection(socket, accepted++, options, state, &server);
    }
}

} // namespace s7200::sim
