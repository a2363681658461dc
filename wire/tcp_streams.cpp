#include "wire/tcp_streams.h"

#include "wire/s7_fields.h"

#include <algorithm>

namespace s7200::wire
{

namespace
{

constexpr quint16 ControllerPort = 102; // ISO-on-TCP
/// What waits for a missing segment; after that many it is missing in the capture for good.
constexpr int MostHeldSegments = 64;

QByteArray addressKey(const QHostAddress& address)
{
    const Q_IPV6ADDR bytes = address.toIPv6Address(); // IPv4 as mapped
    return QByteArray(reinterpret_cast<const char*>(&bytes), int(sizeof bytes));
}

/// Of a connection whose beginning the capture has not got: true if the sender is the controller.
bool comesFromController(const CapturedSegment& segment)
{
    if (segment.from.port == ControllerPort || segment.to.port == ControllerPort)
        return segment.from.port == ControllerPort;
    const int rosctr = byteAt(segment.bytes, RosctrOffset);
    return tpduType(segment.bytes) == Tpdu::ConnectionConfirm ||
           (isS7Pdu(segment.bytes) &&
            (rosctr == int(Rosctr::Ack) || rosctr == int(Rosctr::AckData)));
}

} // namespace

const QVector<TcpStreams::Connection>& TcpStreams::connections() const
{
    return m_connections;
}

TcpStreams::State& TcpStreams::stateOf(const CapturedSegment& segment)
{
    const QByteArray from = addressKey(segment.from.address);
    const QByteArray to = addressKey(segment.to.address);
    Key key(from, segment.from.port, to, segment.to.port);
    const Key other(to, segment.to.port, from, segment.from.port);
    return m_states[std::min(key, other)];
}

void TcpStreams::add(const CapturedSegment& segment)
{
    State& state = stateOf(segment);
    if (segment.syn && !segment.ack) {
        connectionRequested(state, segment);
        return;
    }
    if (state.connection < 0) {
        if (!segment.syn && segment.bytes.isEmpty())
            return; // tells nothing about who is who
        const bool fromController = segment.syn || comesFromController(segment);
        begin(state, fromController ? segment.to : segment.from,
              fromController ? segment.from : segment.to);
    }
    const Connection& connection = m_connections.at(state.connection);
    const bool fromClient = segment.from.port == connection.client.port &&
                            segment.from.address.isEqual(connection.client.address);
    const auto direction = fromClient ? FrameTrace::ToController : FrameTrace::FromController;
    if (segment.reset && !state.established) {
        attemptFailed(state);
        return;
    }
    if (segment.syn) {
        establish(state, segment);
        Side& side = state.side[direction];
        if (!side.known)
            side.next = segment.sequence + 1;
        side.known = true;
        return;
    }
    if (!segment.bytes.isEmpty()) {
        establish(state, segment);
        takeBytes(state, direction, segment);
    }
    if ((segment.fin || segment.reset) && !state.closed) {
        state.closed = true;
        emitEvent(state, StreamEvent::Closed, direction, segment);
    }
}

/// A SYN: of a new connection, unless it is the last one sent again.
void TcpStreams::connectionRequested(State& state, const CapturedSegment& segment)
{
    const bool again = state.connection >= 0 && !state.closed &&
                       state.request.sequence == segment.sequence && state.request.syn &&
                       state.side[FrameTrace::ToController].position == 0;
    if (again)
        return;
    if (state.connection >= 0 && !state.established)
        attemptFailed(state);
    state = State();
    begin(state, segment.from, segment.to);
    state.request = segment;
    Side& side = state.side[FrameTrace::ToController];
    side.known = true;
    side.next = segment.sequence + 1;
}

void TcpStreams::begin(State& state, const TcpEnd& client, const TcpEnd& controller)
{
    state.connection = int(m_connections.size());
    Connection connection;
    connection.client = client;
    connection.controller = controller;
    connection.isTpkt = controller.port == ControllerPort;
    m_connections.append(connection);
}

void TcpStreams::establish(State& state, const CapturedSegment& segment)
{
    if (state.established)
        return;
    state.established = true;
    emitEvent(state, StreamEvent::Opened, FrameTrace::ToController, segment);
}

/// It counts from when it was made, as the next one may be on its way before this one is refused.
void TcpStreams::attemptFailed(State& state)
{
    if (state.request.syn)
        emitEvent(state, StreamEvent::AttemptFailed, FrameTrace::ToController, state.request);
    state = State();
}

void TcpStreams::takeBytes(State& state, FrameTrace::Direction direction,
                           const CapturedSegment& segment)
{
    Side& side = state.side[direction];
    if (!side.known) {
        side.known = true;
        side.next = segment.sequence;
    }
    const qint64 position = side.position + qint32(segment.sequence - side.next);
    side.held.emplace(position, segment);
    release(state, direction, false);
    if (side.held.size() > MostHeldSegments)
        release(state, direction, true);
}

/// Hands on what is in order; `overGap`: all that is held, whatever is missing.
void TcpStreams::release(State& state, FrameTrace::Direction direction, bool overGap)
{
    Side& side = state.side[direction];
    while (!side.held.empty()) {
        const auto first = side.held.begin();
        const qint64 skipped = side.position - first->first;
        if (skipped < 0 && !overGap)
            return;
        CapturedSegment segment = std::move(first->second);
        side.held.erase(first);
        if (skipped >= segment.bytes.size() && skipped > 0)
            continue; // sent twice
        const qint64 forward = segment.bytes.size() - skipped;
        segment.bytes = segment.bytes.mid(int(std::max<qint64>(0, skipped)));
        side.position += forward;
        side.next += quint32(forward);
        emitEvent(state, StreamEvent::Bytes, direction, segment, skipped < 0);
    }
}

void TcpStreams::emitEvent(const State& state, StreamEvent::Kind kind,
                           FrameTrace::Direction direction, const CapturedSegment& segment,
                           bool afterGap)
{
    Connection& connection = m_connections[state.connection];
    const bool carries = kind == StreamEvent::Bytes;
    if (carries && !connection.judged) {
        connection.judged = true;
        connection.isTpkt = byteAt(segment.bytes, 0) == 3 && byteAt(segment.bytes, 1) == 0;
    }
    if (connection.judged && !connection.isTpkt)
        return;
    StreamEvent event;
    event.kind = kind;
    event.direction = direction;
    event.connection = state.connection;
    event.number = segment.number;
    event.timeUs = segment.timeUs;
    if (carries)
        event.bytes = segment.bytes;
    event.afterGap = afterGap;
    m_events.append(event);
}

QVector<StreamEvent> TcpStreams::finish()
{
    for (auto& entry : m_states) {
        State& state = entry.second;
        for (auto direction : {FrameTrace::ToController, FrameTrace::FromController})
            release(state, direction, true);
        if (state.connection >= 0 && !state.established)
            attemptFailed(state);
    }
    m_states.clear();
    QVector<StreamEvent> kept;
    for (const StreamEvent& event : std::as_const(m_events)) {
        if (event.kind != StreamEvent::AttemptFailed && m_connections.at(event.connection).isTpkt)
            kept.append(event);
    }
    // A failed attempt is known late but belongs where it was made. The others are in order, though
    // not always of their frames' numbers.
    for (const StreamEvent& event : std::as_const(m_events)) {
        if (event.kind != StreamEvent::AttemptFailed || !m_connections.at(event.connection).isTpkt)
            continue;
        const auto later = std::find_if(kept.begin(), kept.end(), [&](const StreamEvent& other) {
            return other.number > event.number;
        });
        kept.insert(later, event);
    }
    m_events.clear();
    return kept;
}

} // namespace s7200::wire
