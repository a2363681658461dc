#include "simulator/simulated_connection.h"

#include "simulator/remote_request_handler.h"
#include "simulator/s7_request_handler.h"
#include "wire/frame_trace.h"

#include <QTcpSocket>

#include <algorithm>

namespace s7200::sim
{

namespace
{

// A client that floods with requests or does not take its replies must not cost memory.
constexpr int ReadBufferBytes = 64 * 1024;
constexpr int MostUnsentBytes = 1024 * 1024;

} // namespace

SimulatedConnection::SimulatedConnection(QTcpSocket* socket, int number,
                                         const SimulatorOptions& options, SimulatorState* state,
                                         QObject* parent)
    : QObject(parent), m_socket(socket), m_number(number), m_options(options), m_state(state)
{
    if (options.remote)
        m_handler = std::make_unique<RemoteRequestHandler>(&state->memory, options.largestPdu);
    else
        m_handler =
            std::make_unique<S7RequestHandler>(&state->memory, options.largestPdu, options.tsap);
    m_replies = std::make_unique<FaultyReplies>(
        m_handler.get(), &state->faults, options.remote ? RemoteRequestHandler::TrailingBytes : 0);
    if (options.trace != nullptr)
        m_traceId = options.trace->newConnection({socket->peerAddress(), socket->peerPort()},
                                                 {socket->localAddress(), socket->localPort()});
    ++state->connections;
    m_clock.start();
    m_dueTimer.setSingleShot(true);
    m_dueTimer.setTimerType(Qt::PreciseTimer);
    connect(&m_dueTimer, &QTimer::timeout, this, [this] { sendDue(); });
    socket->setParent(this);
    socket->setReadBufferSize(ReadBufferBytes);
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    connect(socket, &QTcpSocket::disconnected, this, [this] {
        log(QStringLiteral("disconnected"));
        if (m_options.trace != nullptr)
            m_options.trace->closeConnection(m_traceId, m_closing ? wire::FrameTrace::FromController
                                                                  : wire::FrameTrace::ToController);
        deleteLater();
    });
    connect(socket, &QTcpSocket::readyRead, this, [this] { receive(); });

    const FaultKind fault = state->faults.choose(FaultMoment::Accept);
    m_silent = fault == FaultKind::SilentAccept;
    log(QStringLiteral("connected"), fault);
    if (fault != FaultKind::None)
        state->faults.count(fault);
    // Not from within the constructor: the owner counts on a connected socket until the next turn.
    if (fault == FaultKind::RefuseConnection)
        QTimer::singleShot(0, socket, [socket] { socket->abort(); });
    m_closing = fault == FaultKind::RefuseConnection;
}

SimulatedConnection::~SimulatedConnection()
{
    --m_state->connections;
}

void SimulatedConnection::tick()
{
    const bool mayTakeItsTime = m_silent || m_handler->isServing();
    const int limitMs =
        mayTakeItsTime ? m_options.idleMs : std::min(m_options.idleMs, m_options.handshakeMs);
    if (++m_quietTicks * TickMs <= limitMs)
        return;
    if (m_closing) { // and the client takes nothing
        m_socket->abort();
        return;
    }
    log(mayTakeItsTime ? QStringLiteral("idle: connection closed")
                       : QStringLiteral("no handshake in time: connection closed"));
    close();
}

void SimulatedConnection::receive()
{
    // A reply that the client no longer takes closes the socket on the spot.
    while (!m_closing && m_socket->isOpen() && m_pieces.isEmpty()) {
        if (const auto request = m_handler->takeRequest()) {
            serve(*request);
            continue;
        }
        if (m_handler->isBroken()) {
            log(QStringLiteral("bytes that are no request: connection closed"));
            close();
            return;
        }
        const QByteArray bytes = m_socket->read(ReadBufferBytes);
        if (bytes.isEmpty())
            return;
        if (m_options.trace != nullptr)
            m_options.trace->record(m_traceId, wire::FrameTrace::ToController, bytes);
        if (m_silent || m_handler->isServing())
            m_quietTicks = 0;
        if (!m_silent)
            m_handler->append(bytes);
    }
}

void SimulatedConnection::serve(const QByteArray& request)
{
    ++m_state->requests;
    const FaultyReplies::Answer answer = m_replies->serve(request);
    log(m_handler->description(), answer.fault);
    if (answer.isSplit) {
        m_pieces = answer.pieces;
        sendNextPiece();
    } else {
        for (const QByteArray& piece : answer.pieces)
            send(piece);
    }
    if (answer.closes)
        close();
}

void SimulatedConnection::send(const QByteArray& bytes)
{
    if (m_options.latencyMs == 0 && m_options.jitterMs == 0) {
        transmit(bytes);
        return;
    }
    const int jitter = int(m_state->jitter() % quint32(m_options.jitterMs + 1));
    const qint64 dueMs = m_clock.elapsed() + m_options.latencyMs + jitter;
    m_delayed.push_back({dueMs, bytes}); // goes out behind what is there, even if due earlier
    m_delayedBytes += bytes.size();
    if (m_delayed.size() == 1)
        m_dueTimer.start(int(dueMs - m_clock.elapsed()));
    dropIfUnread();
}

void SimulatedConnection::sendDue()
{
    while (!m_delayed.empty() && m_delayed.front().dueMs <= m_clock.elapsed()) {
        const QByteArray bytes = m_delayed.front().bytes;
        m_delayed.pop_front();
        m_delayedBytes -= bytes.size();
        transmit(bytes);
    }
    if (!m_delayed.empty())
        m_dueTimer.start(int(std::max<qint64>(m_delayed.front().dueMs - m_clock.elapsed(), 0)));
    else if (m_closing)
        m_socket->disconnectFromHost();
}

void SimulatedConnection::transmit(const QByteArray& bytes)
{
    if (m_options.trace != nullptr)
        m_options.trace->record(m_traceId, wire::FrameTrace::FromController, bytes);
    m_socket->write(bytes);
    m_socket->flush();
    dropIfUnread();
}

void SimulatedConnection::dropIfUnread()
{
    if (m_socket->bytesToWrite() + m_delayedBytes <= MostUnsentBytes)
        return;
    m_closing = true;
    m_delayed.clear();
    m_socket->abort();
}

void SimulatedConnection::sendNextPiece()
{
    send(m_pieces.takeFirst());
    QTimer::singleShot(0, this, [this] {
        if (m_pieces.isEmpty())
            receive();
        else
            sendNextPiece();
    });
}

/// What is still delayed goes out first.
void SimulatedConnection::close()
{
    m_closing = true;
    if (m_delayed.empty())
        m_socket->disconnectFromHost();
}

void SimulatedConnection::log(const QString& line, FaultKind fault) const
{
    if (!m_options.log)
        return;
    QString text;
    if (m_options.count > 1)
        text = QStringLiteral("port %1 ").arg(m_socket->localPort());
    text += QStringLiteral("#%1 ").arg(m_number) + line;
    if (fault != FaultKind::None)
        text += QStringLiteral(" [fault: %1]").arg(FaultInjector::name(fault));
    m_options.log(text);
}

} // namespace s7200::sim
