#include "simulator/simulated_connection.h"

#include "simulator/remote_request_handler.h"
#include "simulator/s7_request_handler.h"
#include "wire/frame_trace.h"

#include <QTcpSocket>
#include <QTimer>

namespace s7200::sim
{

namespace
{

// A client that floods with requests or does not take its replies must not cost memory.
constexpr int ReadBufferBytes = 64 * 1024;
constexpr int MostUnsentBytes = 1024 * 1024;

FaultMoment momentOf(RequestSummary::Kind kind)
{
    switch (kind) {
    case RequestSummary::Connect:
        return FaultMoment::Connect;
    case RequestSummary::Setup:
        return FaultMoment::Setup;
    default:
        return FaultMoment::Job;
    }
}

Refusal refusalFor(FaultKind fault)
{
    if (fault == FaultKind::ErrorClass)
        return Refusal::Job;
    return fault == FaultKind::ItemError ? Refusal::Item : Refusal::None;
}

/// True for faults after which the client asks again for what it has not got.
bool losesReply(FaultKind fault)
{
    switch (fault) {
    case FaultKind::Lost:
    case FaultKind::Late:
    case FaultKind::Truncated:
    case FaultKind::WrongReference:
    case FaultKind::WrongLength:
    case FaultKind::CloseMidFrame:
        return true;
    default:
        return false;
    }
}

} // namespace

SimulatedConnection::SimulatedConnection(QTcpSocket* acceptedSocket, int connectionNumber,
                                         const SimulatorOptions& simulatorOptions,
                                         SimulatorState* sharedState, QObject* parent)
    : QObject(parent), socket(acceptedSocket), number(connectionNumber), options(simulatorOptions),
      state(sharedState)
{
    if (options.remote)
        handler = std::make_unique<RemoteRequestHandler>(&state->memory);
    else
        handler = std::make_unique<S7RequestHandler>(&state->memory, options.largestPdu);
    if (options.trace != nullptr)
        traceId = options.trace->newConnection({socket->peerAddress(), socket->peerPort()},
                                               {socket->localAddress(), socket->localPort()});
    ++state->connections;
    socket->setParent(this);
    socket->setReadBufferSize(ReadBufferBytes);
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    connect(socket, &QTcpSocket::disconnected, this, [this] {
        log(QStringLiteral("disconnected"), FaultKind::None);
        if (options.trace != nullptr)
            options.trace->closeConnection(traceId, wire::FrameTrace::ToController);
        deleteLater();
    });
    connect(socket, &QTcpSocket::readyRead, this, [this] { receive(); });

    const FaultKind fault = state->faults.choose(FaultMoment::Accept);
    silent = fault == FaultKind::SilentAccept;
    log(QStringLiteral("connected"), fault);
    if (fault != FaultKind::None)
        state->faults.count(fault);
    // Not from within the constructor: the owner counts on a connected socket until the next turn.
    if (fault == FaultKind::RefuseConnection)
        QTimer::singleShot(0, socket, [this] { socket->abort(); });
    closing = fault == FaultKind::RefuseConnection;
}

SimulatedConnection::~SimulatedConnection()
{
    --state->connections;
}

void SimulatedConnection::receive()
{
    // A reply that the client no longer takes closes the socket on the spot.
    while (!closing && socket->isOpen() && splitReply.isEmpty()) {
        if (const auto request = handler->takeRequest()) {
            serve(*request);
            continue;
        }
        if (handler->isBroken()) {
            log(QStringLiteral("bytes that are no request: connection closed"), FaultKind::None);
            close();
            return;
        }
        const QByteArray bytes = socket->read(ReadBufferBytes);
        if (bytes.isEmpty())
            return;
        if (options.trace != nullptr)
            options.trace->record(traceId, wire::FrameTrace::ToController, bytes);
        if (!silent)
            handler->append(bytes);
    }
}

void SimulatedConnection::serve(const QByteArray& request)
{
    ++state->requests;
    const RequestSummary summary = handler->parse(request);
    FaultKind fault = FaultKind::None;
    if (summary.kind != RequestSummary::Other)
        fault = state->faults.choose(momentOf(summary.kind), summary.address);
    const QByteArray reply = handler->answer(refusalFor(fault));
    log(handler->description(), fault);
    if (!lateReply.isEmpty()) {
        send(lateReply);
        lateReply.clear();
    }
    if (!reply.isEmpty())
        deliver(reply, fault);
    if (handler->isBroken())
        close();
}

void SimulatedConnection::deliver(const QByteArray& reply, FaultKind fault)
{
    if (fault == FaultKind::Coalesced && previousReply.isEmpty())
        fault = FaultKind::None;
    if (fault != FaultKind::None)
        state->faults.count(fault);
    if (losesReply(fault))
        handler->replySpoiled();
    const QByteArray bytes = state->faults.spoil(fault, reply);
    switch (fault) {
    case FaultKind::Lost:
        break;
    case FaultKind::Late:
        lateReply = bytes;
        break;
    case FaultKind::Doubled:
        send(bytes);
        send(bytes);
        break;
    case FaultKind::EmptyTpduFirst:
        send(QByteArray("\x03\x00\x00\x07\x02\xF0\x00", 7) +
             QByteArray(options.remote ? RemoteRequestHandler::TrailingBytes : 0, '\0'));
        send(bytes);
        break;
    case FaultKind::Split:
        splitReply = bytes;
        sendNextByte();
        break;
    case FaultKind::Coalesced:
        send(bytes + previousReply);
        break;
    case FaultKind::CloseMidFrame:
        send(bytes);
        close();
        break;
    default:
        send(bytes);
    }
    previousReply = reply;
}

void SimulatedConnection::send(const QByteArray& bytes)
{
    if (options.trace != nullptr)
        options.trace->record(traceId, wire::FrameTrace::FromController, bytes);
    socket->write(bytes);
    socket->flush();
    if (socket->bytesToWrite() > MostUnsentBytes) {
        closing = true;
        socket->abort();
    }
}

void SimulatedConnection::sendNextByte()
{
    send(splitReply.left(1));
    splitReply.remove(0, 1);
    QTimer::singleShot(0, this, [this] {
        if (splitReply.isEmpty())
            receive();
        else
            sendNextByte();
    });
}

void SimulatedConnection::close()
{
    closing = true;
    socket->disconnectFromHost();
}

void SimulatedConnection::log(const QString& line, FaultKind fault) const
{
    if (!options.log)
        return;
    QString text = QStringLiteral("#%1 ").arg(number) + line;
    if (fault != FaultKind::None)
        text += QStringLiteral(" [fault: %1]").arg(FaultInjector::name(fault));
    options.log(text);
}

} // namespace s7200::sim
