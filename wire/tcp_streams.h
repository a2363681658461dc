#ifndef WIRE_TCP_STREAMS_H
#define WIRE_TCP_STREAMS_H

#include "wire/capture_reader.h"

#include <map>
#include <tuple>

namespace s7200::wire
{

/// What happened on a connection to a controller.
struct StreamEvent {
    enum Kind {
        Opened,        ///< Connected.
        AttemptFailed, ///< Never connected.
        Bytes,         ///< In order and once, whatever the segments did.
        Closed,        ///< By `direction`'s sender.
    };
    Kind kind = Bytes;
    FrameTrace::Direction direction = FrameTrace::ToController;
    int connection = 0; ///< Index in TcpStreams::connections().
    qint64 number = 0;  ///< Of the frame in the capture.
    qint64 timeUs = 0;
    QByteArray bytes;
    bool afterGap = false; ///< Bytes before these are missing in the capture.
};

/// Sorts captured segments into connections and puts each one's bytes in order (RFC 9293). Only
/// connections that carry TPKTs (RFC 1006), or go to their port, count.
class TcpStreams
{
public:
    struct Connection {
        TcpEnd client;
        TcpEnd controller;
        bool judged = false; ///< `isTpkt` is settled: the first bytes were seen.
        bool isTpkt = false;
    };

    void add(const CapturedSegment& segment);

    /// After the last segment: what happened, in the file's order.
    QVector<StreamEvent> finish();

    const QVector<Connection>& connections() const;

private:
    using Key = std::tuple<QByteArray, quint16, QByteArray, quint16>;
    struct Side {
        bool known = false;                     ///< `next` is.
        quint32 next = 0;                       ///< Sequence number.
        std::map<qint64, CapturedSegment> held; ///< Ahead of a gap, by position.
        qint64 position = 0;                    ///< Of `next`, in bytes; never wraps.
    };
    struct State {
        int connection = -1;
        bool established = false;
        bool closed = false;
        CapturedSegment request; ///< The SYN that nobody has answered yet.
        Side side[2];            ///< By who sends, a FrameTrace::Direction.
    };

    State& stateOf(const CapturedSegment& segment);
    void connectionRequested(State& state, const CapturedSegment& segment);
    void begin(State& state, const TcpEnd& client, const TcpEnd& controller);
    void establish(State& state, const CapturedSegment& segment);
    void attemptFailed(State& state);
    void takeBytes(State& state, FrameTrace::Direction direction, const CapturedSegment& segment);
    void release(State& state, FrameTrace::Direction direction, bool overGap);
    void emitEvent(const State& state, StreamEvent::Kind kind, FrameTrace::Direction direction,
                   const CapturedSegment& segment, bool afterGap = false);

    std::map<Key, State> m_states;
    QVector<Connection> m_connections;
    QVector<StreamEvent> m_events;
};

} // namespace s7200::wire

#endif
