#ifndef SIMULATOR_MEMORY_RANGE_H
#define SIMULATOR_MEMORY_RANGE_H

#include "simulator/controller_memory.h"

#include <QString>

#include <optional>

namespace s7200::sim
{

/// What a job, or a fault, is about: neighbouring bits of an area, or timers or counters.
struct MemoryRange {
    std::optional<SimulatorArea> area; ///< Nothing: one that the controller does not have.
    qint64 first = 0; ///< A bit, counted from the begin of its area; a timer's or counter's number.
    qint64 end = 0;   ///< The one behind the last.

    /// True if they have a bit, timer or counter in common.
    bool touches(const MemoryRange& other) const;

    /// Byte `number` of this range's area, or the timer or counter with that number.
    MemoryRange elementOfSameArea(qint64 number) const;

    /// A variable as an engineer writes it: "VW100", "M0.3", "T37", "CV5", "AIW4", "VB0x16".
    /// Nothing if it is none, or does not lie inside its area.
    static std::optional<MemoryRange> parse(const QString& text);
};

} // namespace s7200::sim

#endif
