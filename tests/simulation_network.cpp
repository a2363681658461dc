#include "tests/simulation_network.h"

#include <utility>

namespace s7200::simulation
{

namespace
{

enum DecisionKind : quint64 { Choice = 200 };

constexpr Micros Ms = 1000;
constexpr auto Never = std::numeric_limits<Micros>::max();

} // namespace

void Agenda::add(Micros at, bool toHost, Happening happening)
{
    m_entries.push({at, m_order++, toHost, std::move(happening)});
}

Micros Agenda::next() const
{
    if (m_entries.empty())
        return Never;
    const Entry& top = m_entries.top();
    return top.toHost ? std::max(top.at, m_pausedUntil) : top.at;
}

void Agenda::carryOut(Micros now)
{
    Entry entry = m_entries.top();
    m_entries.pop();
    if (entry.toHost && entry.at < m_pausedUntil && now < m_pausedUntil) {
        entry.at = m_pausedUntil; // behind what the controllers do meanwhile
        m_entries.push(std::move(entry));
        return;
    }
    entry.happening(now);
}

Network::Network(Dice& dice, const Weather& weather, Agenda& agenda, Record& record, Receiver& host,
                 bool remote, Micros timeout)
    : m_dice(dice), m_weather(weather), m_agenda(agenda), m_record(record), m_host(host),
      m_isRemote(remote), m_timeout(timeout)
{
}

Fault Network::strike(Chance chance, int station, Micros now)
{
    int& number = m_chances[quint64(station) << 2 | quint64(chance)];
    const Fault fault = m_weather.strike(m_dice, chance, station, number++, now);
    ++struck[std::size_t(fault)];
    return fault;
}

int Network::chosen(int limit)
{
    return m_dice.below(limit, Choice, m_choices++);
}

/// A few milliseconds, as in a hall; now and then more.
Micros Network::shortly()
{
    const int one = chosen(100);
    return (one < 90 ? 1 + one % 6 : 10 + one % 7 * 5) * Ms;
}

Memory& Network::memory(int station)
{
    return m_memories
        .emplace(station, Memory(mixed(quint64(station), quint64(m_dice.below(1 << 30, Choice)))))
        .first->second;
}

void Network::pause(int station, Micros until)
{
    m_pausedUntil[station] = until;
}

void Network::open(int station, int connection, Micros now)
{
    const auto wire = std::make_shared<Wire>(connection, station, memory(station), m_isRemote);
    m_wires[station] = wire;
    const Fault fault = strike(Chance::Accept, station, now);
    if (fault == Fault::SwallowConnection)
        return;
    Micros at = std::max(now + shortly(), m_pausedUntil[station]);
    if (fault == Fault::SlowConnection)
        at += chosen(int(2 * m_timeout / Ms)) * Ms;
    wire->isSilent = fault == Fault::SilentAccept;
    m_agenda.add(at, true, [this, wire, fault](Micros then) {
        if (!wire->isOpenToHost)
            return;
        if (fault == Fault::RefuseConnection) {
            wire->isOpenToHost = false;
            m_host.takeOpenFailed(wire->station, then);
        } else {
            m_host.takeOpened(wire->station, then);
        }
    });
    if (fault == Fault::ResetAtOnce)
        reset(wire, at + chosen(2) * Ms);
    if (fault == Fault::Banner)
        bring(wire, spoiled(Fault::Garbage, QByteArray(), 2 * chosen(2), m_isRemote), at);
}

void Network::close(int station, Micros now)
{
    Q_UNUSED(now);
    const auto wire = m_wires.find(station);
    if (wire != m_wires.end())
        wire->second->isOpenToHost = false;
}

void Network::send(int station, const QByteArray&, Micros now)
{
    const WirePtr wire = m_wires.at(station);
    const ExchangePtr exchange = m_record.current();
    wire->nextArrival = std::max(wire->nextArrival, now + shortly());
    m_agenda.add(wire->nextArrival, false,
                 [this, wire, exchange](Micros then) { arrives(wire, exchange, then); });
}

void Network::arrives(const WirePtr& wire, const ExchangePtr& exchange, Micros now)
{
    if (!wire->isOpenToPeer || wire->isSilent)
        return;
    const Micros until = m_pausedUntil[wire->station];
    if (now < until) {
        m_agenda.add(until, false,
                     [this, wire, exchange](Micros then) { arrives(wire, exchange, then); });
        return;
    }
    const Chance chance = exchange->asked.kind == Asked::Connect ? Chance::Connect
                          : exchange->asked.kind == Asked::Setup ? Chance::Setup
                                                                 : Chance::Job;
    const Fault fault = strike(chance, wire->station, now);
    if (fault == Fault::LostRequest)
        return;
    if (fault == Fault::ResetBefore) {
        reset(wire, now + shortly());
        return;
    }
    if (fault != Fault::HeldRequest) {
        serve(wire, exchange, fault, now);
        return;
    }
    const Micros later = now + (1 + chosen(int(3 * m_timeout / Ms))) * Ms;
    m_agenda.add(later, false, [this, wire, exchange](Micros then) {
        if (wire->isOpenToPeer)
            serve(wire, exchange, Fault::None, then);
    });
}

void Network::serve(const WirePtr& wire, const ExchangePtr& exchange, Fault fault, Micros now)
{
    const Refusal refusal = fault == Fault::ErrorClass  ? Refusal::Job
                            : fault == Fault::ItemError ? Refusal::Item
                                                        : Refusal::None;
    const Answer answer = wire->conversation.answer(exchange->asked, refusal, now);
    m_record.answered(exchange, answer);
    if (answer.breaks)
        reset(wire, now + shortly());
    else
        reply(wire, answer.bytes,
              answer.refused && fault == Fault::WrongField ? Fault::None : fault, now);
}

void Network::reply(const WirePtr& wire, QByteArray bytes, Fault fault, Micros now)
{
    if (wire->nextDelivery == Never)
        return;
    Micros at = now + shortly();
    if (isSpoiling(fault))
        bytes = spoiled(fault, bytes, chosen(1000), m_isRemote);
    bytes = std::exchange(wire->held, QByteArray()) + bytes;
    switch (fault) {
    case Fault::LostReply:
        return;
    case Fault::LateReply:
        at += m_timeout / 2 + chosen(int(4 * m_timeout / Ms)) * Ms;
        break;
    case Fault::Doubled:
        bytes += bytes;
        break;
    case Fault::DoubledLater:
        bring(wire, bytes, at + (1 + chosen(int(2 * m_timeout / Ms))) * Ms);
        break;
    case Fault::Split:
        bringPieces(wire, bytes, at);
        return;
    case Fault::EmptyTpduFirst:
        bytes =
            QByteArray::fromHex("03000007 02F080") + QByteArray(m_isRemote ? 2 : 0, '\0') + bytes;
        break;
    case Fault::Glued:
        wire->held = bytes;
        return;
    case Fault::TruncatedClose:
        reset(wire, at + 1 * Ms);
        Q_FALLTHROUGH();
    case Fault::Truncated:
        // Nothing comes behind a gap in a stream: a host could not tell where that begins.
        bringLast(wire, bytes.left(1 + chosen(int(bytes.size()) - 1)), at);
        return;
    case Fault::ResetAfter:
        reset(wire, at);
        return;
    case Fault::HalfClose: // what is still coming to the controller is carried out
        wire->nextDelivery = Never;
        m_agenda.add(at, true, [this, wire](Micros then) {
            if (std::exchange(wire->isOpenToHost, false))
                m_host.takeClosed(wire->station, then);
        });
        return;
    default:
        break;
    }
    bring(wire, bytes, at);
}

/// In order with what is under way in pieces, but not otherwise: a controller answers when it
/// likes.
void Network::bring(const WirePtr& wire, const QByteArray& bytes, Micros at)
{
    if (wire->nextDelivery == Never)
        return;
    m_agenda.add(std::max(at, wire->nextDelivery), true,
                 [this, wire, bytes](Micros now) { deliver(wire, bytes, now); });
}

void Network::deliver(const WirePtr& wire, const QByteArray& bytes, Micros now)
{
    if (!wire->isOpenToHost || wire->hasGap)
        return;
    if (now < wire->nextDelivery)
        bring(wire, bytes, wire->nextDelivery);
    else
        m_host.takeBytes(wire->station, bytes, now);
}

void Network::bringLast(const WirePtr& wire, const QByteArray& bytes, Micros at)
{
    m_agenda.add(std::max(at, wire->nextDelivery), true, [this, wire, bytes](Micros now) {
        deliver(wire, bytes, now);
        wire->hasGap = true;
    });
}

void Network::bringPieces(const WirePtr& wire, const QByteArray& bytes, Micros at)
{
    const int pieces = 2 + chosen(3);
    int done = 0;
    at = std::max(at, wire->nextDelivery);
    for (int i = 0; i < pieces && done < int(bytes.size()); ++i) {
        const int left = int(bytes.size()) - done;
        const int length = i == pieces - 1 ? left : 1 + chosen(left);
        const QByteArray piece = bytes.mid(done, length);
        m_agenda.add(at, true, [this, wire, piece](Micros now) {
            if (wire->isOpenToHost && !wire->hasGap)
                m_host.takeBytes(wire->station, piece, now);
        });
        done += length;
        at += (1 + chosen(30)) * Ms;
    }
    wire->nextDelivery = at;
}

void Network::reset(const WirePtr& wire, Micros at)
{
    m_agenda.add(at, true, [this, wire](Micros now) {
        wire->isOpenToPeer = false;
        if (std::exchange(wire->isOpenToHost, false))
            m_host.takeClosed(wire->station, now);
    });
}

} // namespace s7200::simulation
