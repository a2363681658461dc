#ifndef TESTS_SIMULATION_RECORD_H
#define TESTS_SIMULATION_RECORD_H

#include "host/link_health.h"
#include "tests/simulation_controller.h"
#include "wire/tpkt_reassembler.h"

#include <deque>
#include <map>
#include <memory>

namespace s7200::simulation
{

/// One frame of the driver's from its first sending until something has become of it.
struct Exchange {
    quint64 order = 0; ///< Among all of the run, and among connections.
    int station = 0;
    int connection = 0;
    QByteArray frame;
    Asked asked;
    Micros firstSent = 0;
    qint64 firstSentWallMs = 0;
    Micros lastSent = 0;
    int sendings = 0;
    int applied = 0; ///< How often the controller carried out this write.
    /// What has ended the waiting for a reply: one that its controller gave, or anything else.
    enum End { Waiting, Good, Refused, Spoiled, Silence, Gone } end = Waiting;
    Micros endedAt = 0;
    quint64 endOrder = 0;
    QByteArray sample; ///< Of a read that went well.
    std::vector<Answer> answers;
};
using ExchangePtr = std::shared_ptr<Exchange>;

/// A TCP connection as both its ends know it.
struct Connection {
    int number = 0;
    int station = 0;
    quint64 order = 0;
    enum State { Opening, Open, LostByPeer, Ended } state = Opening;
    Micros orderedAt = 0;
    int frames = 0;
};

/// What really passed between one host and its controllers, kept by those who stand between them;
/// what the host says is judged by it.
class Record
{
public:
    Record(bool remote, Micros timeout);

    // What happens; each tells what is wrong about it, or nothing.
    QString opens(int station, int connection, Micros now);
    void opened(int station);
    void openFailed(int station);
    void lost(int station, Micros now); ///< The host has been told so.
    void closes(int station, Micros now);
    QString sends(int station, const QByteArray& frame, Micros now, qint64 wallMs);
    void answered(const ExchangePtr& exchange, const Answer& answer);
    void brought(int station, const QByteArray& bytes, Micros now);
    void timePasses(Micros now);

    /// True once after the waiting for a reply has ended.
    bool takeEnd();

    const Connection* connection(int station) const;
    const ExchangePtr& current() const
    {
        return m_current;
    }
    quint64 lastOrder() const
    {
        return m_order;
    }
    quint64 lastWrite() const
    {
        return m_lastWrite;
    }
    /// Reads that went well and writes that were sent, newest last, for as long as they matter.
    const std::deque<ExchangePtr>& reads(int station) const;
    const std::deque<ExchangePtr>& writes(int station) const;

    struct Counts {
        quint64 sent = 0;
        quint64 repeats = 0;
        quint64 goodOnce =
            0; ///< Answered well, or a write that its item refused, and sent but once.
        quint64 connections = 0;
        quint64 noConnection = 0;
        quint64 timeOuts = 0; ///< With nothing at all received.
        quint64 refused = 0;
    };
    Counts counts;
    /// Time that answers have taken, from first sending to arrival.
    Micros trips = 0;
    Micros idleSince = 0; ///< When the last frame was sent or ended.

private:
    void end(Exchange::End how, Micros now, bool isByItem = false);
    void judgeArrival(const QByteArray& frame, Micros now);

    const bool m_isRemote;
    const Micros m_timeout;
    quint64 m_order = 0;
    quint64 m_lastWrite = 0;
    std::map<int, Connection> m_connections;
    ExchangePtr m_current;
    wire::TpktReassembler m_stream; ///< Since the last sending.
    bool m_anything = false;        ///< Received since then.
    bool m_hasEnded = false;
    std::map<int, std::deque<ExchangePtr>> m_reads;
    std::map<int, std::deque<ExchangePtr>> m_writes;
};

} // namespace s7200::simulation

#endif
