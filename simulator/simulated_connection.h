#ifndef SIMULATOR_SIMULATED_CONNECTION_H
#define SIMULATOR_SIMULATED_CONNECTION_H

#include "simulator/controller_memory.h"
#include "simulator/fault_injector.h"
#include "simulator/faulty_replies.h"
#include "simulator/request_handler.h"
#include "simulator/simulator_options.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <atomic>
#include <deque>
#include <memory>
#include <random>

class QTcpSocket;

namespace s7200::sim
{

/// What the connections of one simulated controller share, with its owner's thread too.
struct SimulatorState {
    explicit SimulatorState(quint32 seed) : faults(seed), jitter(seed) {}
    ControllerMemory memory;
    FaultInjector faults;
    std::minstd_rand jitter; ///< The simulator's thread only.
    std::atomic<quint64> requests{0};
    std::atomic<int> connections{0};
};

/// One TCP connection of the simulated controller: takes requests off the socket, has them
/// answered, and sends the replies with whatever fault is due. Deletes itself once disconnected.
class SimulatedConnection : public QObject
{
public:
    static constexpr int TickMs = 100;

    /// Takes the socket over; `options` and `state` must outlive the connection.
    SimulatedConnection(QTcpSocket* socket, int number, const SimulatorOptions& options,
                        SimulatorState* state, QObject* parent);
    ~SimulatedConnection() override;

    /// To be called every TickMs: closes the connection when nothing has been said for too long.
    /// Counting calls, a process that stood still for a while closes nobody for it.
    void tick();

private:
    struct Delayed {
        qint64 dueMs;
        QByteArray bytes;
    };

    void receive();
    void serve(const QByteArray& request);
    void send(const QByteArray& bytes);
    void sendDue();
    void transmit(const QByteArray& bytes);
    void dropIfUnread();
    void sendNextPiece();
    void close();
    void log(const QString& line, FaultKind fault = FaultKind::None) const;

    QTcpSocket* m_socket;
    int m_number;
    const SimulatorOptions& m_options;
    SimulatorState* m_state;
    std::unique_ptr<RequestHandler> m_handler;
    std::unique_ptr<FaultyReplies> m_replies;
    int m_traceId = -1;
    bool m_closing = false;
    bool m_silent = false;
    int m_quietTicks = 0;
    QVector<QByteArray> m_pieces;  ///< Still to be sent one by one; nothing is served meanwhile.
    std::deque<Delayed> m_delayed; ///< In the order in which they go out.
    qint64 m_delayedBytes = 0;
    QElapsedTimer m_clock;
    QTimer m_dueTimer;
};

} // namespace s7200::sim

#endif
