#ifndef TESTS_SIMULATION_FAULTS_H
#define TESTS_SIMULATION_FAULTS_H

#include "host/link_health.h"
#include "tests/simulation_dice.h"
#include "tests/simulation_frames.h"

namespace s7200::simulation
{

/// What goes wrong between a host and a controller.
enum class Fault {
    None,
    // while connecting
    RefuseConnection,
    SwallowConnection, ///< No answer at all.
    SlowConnection,
    SilentAccept,
    ResetAtOnce,
    Banner,
    // a request or its reply
    LostRequest,
    LostReply,
    LateReply,   ///< Carried out at once, answered as if to a later try.
    HeldRequest, ///< Carried out late.
    Doubled,
    DoubledLater,
    Split,
    EmptyTpduFirst,
    Glued, ///< To the next reply, or alone later.
    Truncated,
    TruncatedClose,
    Garbage,
    Disconnect, ///< A disconnect request.
    ResetBefore,
    ResetAfter,
    HalfClose, ///< No reply any more, but what is under way is carried out.
    // of setup and jobs
    ErrorClass,
    // of jobs
    ItemError,
    WrongReference,
    WrongLength,
    WrongField,
    Count
};
constexpr int FaultCount = int(Fault::Count);
const char* describe(Fault fault);

/// True for bytes that are another reply than what the controller gave.
bool isSpoiling(Fault fault);

/// The reply as such a fault makes it; `number` chooses how. Only in what a host examines: nobody
/// can tell a payload bit.
QByteArray spoiled(Fault fault, const QByteArray& reply, int number, bool remote);

/// When something may go wrong.
enum class Chance { Accept, Connect, Setup, Job };

/// Which faults there are in a run, and how often.
class Weather
{
public:
    Weather(const Dice& dice, Micros end);

    /// What strikes the n-th chance of its kind in a station.
    Fault strike(Dice& dice, Chance chance, int station, int number, Micros now) const;
    static quint64 troubleOf(Chance chance, int station, int number);

private:
    int perMille(Micros now) const;

    const Micros m_end;
    std::vector<Fault> m_kinds;
    std::vector<int> m_rates; ///< Per mille, in turn for a while each.
};

} // namespace s7200::simulation

#endif
