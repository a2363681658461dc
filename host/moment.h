#ifndef HOST_MOMENT_H
#define HOST_MOMENT_H

#include <QtGlobal>

namespace s7200
{

/// A point of time or a span, in microseconds; of a clock that never jumps and goes on while the
/// machine is suspended.
using Micros = qint64;

/// When something happened, by both clocks: what was read last week does not become younger when
/// somebody sets the time.
struct Moment {
    Micros steady = 0; ///< For ages and waits.
    qint64 wallMs = 0; ///< For people: milliseconds since 1970-01-01 UTC. May jump.
};

} // namespace s7200

#endif
