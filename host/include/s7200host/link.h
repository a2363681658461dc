#ifndef S7200HOST_LINK_H
#define S7200HOST_LINK_H

#include <s7200host/export.h>

#include <QMetaType>
#include <QString>
#include <QtGlobal>

#include <array>

namespace s7200
{

/// Why something failed. Of a link, of one reply, or of one request.
enum class Cause {
    None,
    NoConnection,      ///< No TCP connection: refused, unreachable, no such name, too slow.
    Closed,            ///< The connection was closed by the controller.
    TimedOut,          ///< No reply in time.
    WrongLength,       ///< A reply of another length than the request asks for.
    WrongReference,    ///< A reply to another request.
    Refused,           ///< A well-formed S7 reply that says no.
    NotS7,             ///< Anything else: another TPDU, a banner, random bytes.
    ConnectionRefused, ///< The TPDU connection (TSAPs) was refused.
    SetupRefused,      ///< Setup communication was refused or answered wrongly.
    Dropped,           ///< Queued behind something else that brought the link down.
    Invalid,           ///< The request itself cannot be carried out; nothing was sent.
    Stopped,           ///< The controller object was stopped.
};
constexpr int CauseCount = int(Cause::Stopped) + 1;

/// A short name: "no connection", "closed", "time-out", "wrong length", ...
S7200HOST_EXPORT QString describe(Cause cause);

enum class LinkState {
    Stopped,    ///< start() has not been called, or stop() has.
    Connecting, ///< TCP connection under way, name look-up included.
    Handshake,  ///< Connection request or setup communication awaits its reply.
    Up,
    Waiting, ///< Before the next attempt.
    Down,    ///< Waiting, after more failed attempts than the retries allow.
};

S7200HOST_EXPORT QString describe(LinkState state);

/// How a link fares now.
struct LinkStatus {
    LinkState state = LinkState::Stopped; ///< Where in connecting, working or waiting.
    int station = 0;                      ///< Whose link it is.
    Cause cause = Cause::None;            ///< Of the last failure; None once the link is up.
    QString detail;                       ///< The same for people.
    int attempts = 0;                     ///< Failed since the link was last up.
    qint64 nextAttemptMs = 0;             ///< Waiting, Down: until the next attempt.
};

/// Round trips in a fixed number of buckets: four to each doubling from 16 microseconds on.
class S7200HOST_EXPORT RoundTripHistogram
{
public:
    static constexpr int Buckets = 96; ///< The last one takes all that is longer.

    void add(qint64 microseconds); ///< Counts one round trip.
    /// Adds all that another one has counted.
    void merge(const RoundTripHistogram& other);
    quint64 count() const;  ///< Of round trips.
    qint64 minimum() const; ///< Exact, in microseconds; 0 while empty.
    qint64 maximum() const; ///< Exact.
    /// Upper bound of the bucket that holds the given share (0 to 1) of all round trips, in
    /// microseconds, never above maximum(); 0 while empty.
    qint64 percentile(double share) const;

private:
    std::array<quint64, Buckets> m_buckets = {};
    quint64 m_count = 0;
    qint64 m_minimum = 0;
    qint64 m_maximum = 0;
};

/// Counted since start().
struct LinkStatistics {
    quint64 cycles = 0;      ///< Completed readings of all watched variables.
    quint64 lateCycles = 0;  ///< Begun more than 1.1 intervals after the one before.
    quint64 requests = 0;    ///< Frames sent, handshakes and repeats included.
    quint64 retries = 0;     ///< Failed replies after which the same frame went out again.
    quint64 connections = 0; ///< TCP connections opened.
    quint64 reconnects = 0;  ///< Links that came up again after a loss.
    quint64 linkLosses = 0;  ///< Links that were up and were lost.
    std::array<quint64, CauseCount> failures = {}; ///< By cause, each failed reply or attempt.
    int grantedPdu = 0;           ///< PDU length of the last setup reply, bytes; 0: none yet.
    RoundTripHistogram roundTrip; ///< Of each frame that was answered when it was sent once.

    /// Failures for this reason.
    quint64 failed(Cause cause) const
    {
        return failures[std::size_t(cause)];
    }
};

} // namespace s7200

Q_DECLARE_METATYPE(s7200::LinkStatus)

#endif
