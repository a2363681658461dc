#ifndef TESTS_SIMULATION_NETWORK_H
#define TESTS_SIMULATION_NETWORK_H

#include "tests/simulation_faults.h"
#include "tests/simulation_record.h"

#include <array>
#include <functional>
#include <queue>

namespace s7200::simulation
{

/// What is going to happen, by virtual time; at one time in the order in which it was arranged.
class Agenda
{
public:
    using Happening = std::function<void(Micros now)>;

    /// `toHost`: waits while the host is paused.
    void add(Micros at, bool toHost, Happening happening);
    bool isEmpty() const
    {
        return m_entries.empty();
    }
    Micros next() const;
    /// Takes the next one out and carries it out.
    void carryOut(Micros now);
    void pauseHost(Micros until)
    {
        m_pausedUntil = std::max(m_pausedUntil, until);
    }
    Micros pausedUntil() const
    {
        return m_pausedUntil;
    }

private:
    struct Entry {
        Micros at;
        quint64 order;
        bool toHost;
        Happening happening;
        bool operator<(const Entry& other) const // the last one is the top
        {
            return at != other.at ? at > other.at : order > other.order;
        }
    };
    std::priority_queue<Entry> m_entries;
    quint64 m_order = 0;
    Micros m_pausedUntil = 0;
};

/// Whom a network brings something.
class Receiver
{
public:
    virtual ~Receiver() = default;
    virtual void takeOpened(int station, Micros now) = 0;
    virtual void takeOpenFailed(int station, Micros now) = 0;
    virtual void takeBytes(int station, const QByteArray& bytes, Micros now) = 0;
    virtual void takeClosed(int station, Micros now) = 0;
};

/// The controllers and all the ways to them, with what goes wrong on them.
class Network
{
public:
    Network(Dice& dice, const Weather& weather, Agenda& agenda, Record& record, Receiver& host,
            bool remote, Micros timeout);

    // The host's orders.
    void open(int station, int connection, Micros now);
    void close(int station, Micros now);
    void send(int station, const QByteArray& frame, Micros now);

    /// A controller does nothing for so long.
    void pause(int station, Micros until);

    std::array<quint64, FaultCount> struck = {};

private:
    struct Wire {
        Wire(int wireNumber, int wireStation, Memory& memory, bool remote)
            : number(wireNumber), station(wireStation), conversation(memory, remote, 240)
        {
        }
        int number;
        int station;
        Conversation conversation;
        Micros nextArrival = 0;  ///< At the controller: in order.
        Micros nextDelivery = 0; ///< No sooner: a frame is under way in pieces.
        bool isOpenToHost = true;
        bool isOpenToPeer = true;
        bool isSilent = false;
        bool hasGap = false; ///< A part of the stream to the host is lost.
        QByteArray held;     ///< Comes with the next reply.
    };
    using WirePtr = std::shared_ptr<Wire>;

    Fault strike(Chance chance, int station, Micros now);
    int chosen(int limit);
    Micros shortly();
    Memory& memory(int station);
    void arrives(const WirePtr& wire, const ExchangePtr& exchange, Micros now);
    void serve(const WirePtr& wire, const ExchangePtr& exchange, Fault fault, Micros now);
    void reply(const WirePtr& wire, QByteArray bytes, Fault fault, Micros now);
    void bring(const WirePtr& wire, const QByteArray& bytes, Micros at);
    void deliver(const WirePtr& wire, const QByteArray& bytes, Micros now);
    void bringLast(const WirePtr& wire, const QByteArray& bytes, Micros at);
    void bringPieces(const WirePtr& wire, const QByteArray& bytes, Micros at);
    void reset(const WirePtr& wire, Micros at);

    Dice& m_dice;
    const Weather& m_weather;
    Agenda& m_agenda;
    Record& m_record;
    Receiver& m_host;
    const bool m_isRemote;
    const Micros m_timeout;
    std::map<int, Memory> m_memories;
    std::map<int, WirePtr> m_wires;
    std::map<int, Micros> m_pausedUntil;
    std::map<quint64, int> m_chances;
    quint64 m_choices = 0;
};

} // namespace s7200::simulation

#endif
