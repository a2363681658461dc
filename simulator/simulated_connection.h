#ifndef SIMULATOR_SIMULATED_CONNECTION_H
#define SIMULATOR_SIMULATED_CONNECTION_H

#include "simulator/fault_injector.h"
#include "simulator/request_handler.h"
#include "simulator/simulator_thread.h"

#include <QByteArray>
#include <QList>
#include <QObject>

#include <atomic>
#include <memory>

class QTcpSocket;

namespace s7200::sim
{

/// What the connections of one simulated controller share, with its owner's thread too.
struct SimulatorState {
    explicit SimulatorState(quint32 seed) : faults(seed) {}
    ControllerMemory memory;
    FaultInjector faults;
    std::atomic<quint64> requests{0};
    std::atomic<int> connections{0};
};

/// One TCP connection of the simulated controller: takes requests off the socket, has them
/// answered, and sends the replies with whatever fault is due. Deletes itself once disconnected.
class SimulatedConnection : public QObject
{
public:
    /// Takes the socket over; `options` and `state` must outlive the connection.
    SimulatedConnection(QTcpSocket* socket, int number, const SimulatorOptions& options,
                        SimulatorState* state, QObject* parent);
    ~SimulatedConnection() override;

private:
    void receive();
    void serve(const QByteArray& request);
    void deliver(const QByteArray& reply, FaultKind fault);
    void send(const QByteArray& bytes);
    void sendNextByte();
    void close();
    void log(const QString& line, FaultKind fault) const;

    QTcpSocket* socket;
    int number;
    const SimulatorOptions& options;
    SimulatorState* state;
    std::unique_ptr<RequestHandler> handler;
    int traceId = -1;
    bool closing = false;
    bool silent = false;
    QByteArray splitReply;    ///< Still to be sent byte by byte; nothing is served meanwhile.
    QByteArray lateReply;     ///< Held back until the next request.
    QByteArray previousReply; ///< For sending once more.
};

} // namespace s7200::sim

#endif
