#ifndef TESTS_SIMULATION_CONTROLLER_H
#define TESTS_SIMULATION_CONTROLLER_H

#include "host/link_health.h"
#include "tests/simulation_frames.h"

#include <unordered_map>

namespace s7200::simulation
{

/// What a controller's memory holds at any time: a value that follows from controller, area,
/// address and time, from every millisecond on another to every second, until it is written. The
/// status of timers and counters is the controller's own and always follows time.
class Memory
{
public:
    explicit Memory(quint64 seed) : m_seed(seed) {}

    QByteArray read(const Span& span, Micros now) const;
    void write(const Asked& write);

private:
    struct Written {
        quint8 mask = 0;
        quint8 bits = 0;
    };
    quint8 derived(Area area, int offset, Micros now) const;
    static int keyOf(Area area, int offset)
    {
        return int(area) << 16 | offset;
    }

    const quint64 m_seed;
    std::unordered_map<int, Written> m_written;
};

/// A reply as the controller gives it, before the network has its way with it.
struct Answer {
    QByteArray bytes; ///< Empty: nothing is said.
    bool refused = false;
    bool breaks = false; ///< A real module closes the connection.
    QByteArray sample;   ///< Of a read: the memory there, then.
    bool applied = false;
};

enum class Refusal { None, Job, Item };

/// One connection's side in a controller.
class Conversation
{
public:
    Conversation(Memory& memory, bool remote, int pdu)
        : m_memory(memory), m_isRemote(remote), m_pdu(pdu)
    {
    }

    Answer answer(const Asked& request, Refusal refusal, Micros now);

private:
    Answer serve(const Asked& request, Refusal refusal, Micros now);
    bool fits(const Asked& request) const;

    Memory& m_memory;
    const bool m_isRemote;
    const int m_pdu;
    bool m_isConnected = false;
    bool m_isSetUp = false;
    quint16 m_reference = 0; ///< Of a remote peer: counts its good replies.
};

} // namespace s7200::simulation

#endif
