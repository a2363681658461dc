#ifndef SIMULATOR_CONTROLLER_MEMORY_H
#define SIMULATOR_CONTROLLER_MEMORY_H

#include <QByteArray>
#include <QStringList>

#include <array>
#include <mutex>

namespace s7200::sim
{

/// The memory areas of the simulated controller.
enum class SimulatorArea { I, Q, M, S, SM, V, AIW, AQW, Timer, Counter };

/// The simulated controller's memory. Words are most significant byte first, as the controller
/// keeps them. A timer takes 5 bytes (status, 0, 0, value high, value low; status 2: timer bit on),
/// a counter 3 (status, value high, value low; status 0x10: counter bit on).
///
/// Some values live: tick() changes them by itself, as a controller's program would. One that is
/// written stands still from then on, so that what was written can be read back.
///
/// Every function takes the memory's own lock, so any thread may call them.
class ControllerMemory
{
public:
    ControllerMemory();

    /// Size of an area in bytes, and of one of its elements: 5 for timers, 3 for counters, else 1.
    static int size(SimulatorArea area);
    static int elementSize(SimulatorArea area);

    /// True if `bytes` bytes, at least one, lie inside the area from `offset` on.
    static bool contains(SimulatorArea area, int offset, int bytes);

    /// False for inputs, and for the system's own special memory (SM0 to SM29).
    static bool isWritable(SimulatorArea area, int offset);

    /// `bytes` bytes from `offset`; what lies outside the area reads as 0x00.
    QByteArray read(SimulatorArea area, int offset, int bytes) const;

    /// Stores bytes from `offset` on, read-only places included; what lies outside is dropped.
    void write(SimulatorArea area, int offset, const QByteArray& bytes);

    /// Stores one bit; outside the area nothing happens.
    void writeBit(SimulatorArea area, int offset, int bit, bool on);

    /// Stores the value of a timer or counter and leaves its status, which is the controller's own.
    void writeValue(SimulatorArea area, int number, int value);

    /// Moves the live values on by one tick of 100 ms.
    void tick();

    /// What lives, one line each, for the help text.
    static QStringList liveValues();

private:
    enum LiveValue { Count, Ramp, Real, AnalogRamp, Lamp, ClockBit, Counter, Timer, LiveValues };

    bool moves(LiveValue value) const;
    void stopLiveValues(SimulatorArea area, int offset, int bytes, int bit);
    void tickTimer();
    void tickCounter();
    void setBit(SimulatorArea area, int offset, int bit, bool on);
    int word(SimulatorArea area, int offset) const;
    void setWord(SimulatorArea area, int offset, int value);

    mutable std::mutex m_mutex;
    std::array<QByteArray, 10> m_areas;
    std::array<bool, LiveValues> m_stopped = {};
    quint32 m_ticks = 0;
};

} // namespace s7200::sim

#endif
