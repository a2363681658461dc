#ifndef TOOLS_SOAK_PEER_H
#define TOOLS_SOAK_PEER_H

#include "tests/simulation_controller.h"
#include "tests/simulation_faults.h"
#include "wire/tpkt_reassembler.h"

#include <QTcpServer>
#include <QTcpSocket>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>

namespace s7200::soak
{

using namespace simulation;

constexpr int TimeoutMs = 200; ///< Of the host.

/// The clock by which ages are reckoned.
Micros steadyNow();

/// Ends the program.
[[noreturn]] void fail(const QString& why);

/// What a controller has said and what it was told, for whoever judges in another thread.
class Log
{
public:
    void addRead(const Asked& asked, const QByteArray& sample, Micros now);
    void addWrite(const Asked& asked);

    /// True if that value of an element was read at `since` or later.
    bool wasRead(const Variable& variable, const Element& element, quint32 value,
                 Micros since) const;
    bool wasWritten(const Span& span, const QByteArray& bytes) const;

private:
    struct Read {
        Micros at;
        Asked asked;
        QByteArray sample;
    };
    mutable std::mutex m_mutex;
    std::deque<Read> m_reads;
    std::vector<Asked> m_writes;
};

/// A controller behind a socket, in a thread of its own, and what goes wrong there.
class Peer : public QObject
{
public:
    /// Until `end`, counted from begin().
    Peer(int number, bool remote, Micros end, Log& log);
    void begin(); ///< In its own thread.
    quint16 port() const
    {
        return m_port;
    }
    std::atomic<quint64> faults{0};

private:
    struct Wire;
    using WirePtr = std::shared_ptr<Wire>;

    Fault strike(Chance chance);
    int chosen(int limit);
    void accept();
    void take(QTcpSocket* socket, const WirePtr& wire);
    void arrives(QTcpSocket* socket, const WirePtr& wire, const QByteArray& frame);
    void reply(QTcpSocket* socket, const WirePtr& wire, const Answer& answer, Fault fault);
    void send(QTcpSocket* socket, const WirePtr& wire, const QByteArray& bytes, int delayMs);

    const int m_number;
    const bool m_isRemote;
    Dice m_dice;
    const Weather m_weather;
    Memory m_memory;
    Log& m_log;
    QTcpServer* m_server = nullptr;
    std::atomic<quint16> m_port{0};
    Micros m_began = 0;
    std::array<int, 4> m_chances = {};
    quint64 m_choices = 0;
};

} // namespace s7200::soak

#endif
