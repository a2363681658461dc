// The part of LinkMachine that reads what is watched: once an interval, all of it.

#include "host/link_machine.h"

#include <algorithm>
#include <utility>

namespace s7200
{

namespace
{

constexpr Micros PerMs = 1000;
/// A value that has not been read for so many intervals is stale.
constexpr int IntervalsToStale = 3;
constexpr int MostTags = 1 << 30;
constexpr Micros RestingInterval = 1000 * PerMs;
constexpr Micros ShortestInterval = 10 * PerMs;

} // namespace

ReadBlock LinkMachine::probeOf(int station)
{
    ReadBlock probe;
    probe.type = Type_SMW;
    probe.station = station;
    probe.units = 2;
    return probe;
}

/// Hands the driver its cyclic list, of the stations that are connected. A failed handshake does
/// not move the driver on to the next request of that list, so the others do not belong there.
void LinkMachine::relist()
{
    QVector<ReadBlock> blocks;
    for (const auto& entry : m_stations) {
        const Station& station = entry.second;
        if (!isConnected(station))
            continue;
        const QVector<ReadBlock> wanted = m_watch.cyclicBlocks(entry.first);
        // The driver shakes hands, and finds out that a link is lost, in the place of a request.
        if (wanted.isEmpty() && !isReady(station))
            blocks.append(probeOf(entry.first));
        blocks += wanted;
    }
    m_comInfo.block_length_limit = m_watch.blockLimit();
    m_listed =
        m_driver.ReCreatReadVarList(cyclicRecords(blocks, m_comInfo.per_variable_stations != 0));
    m_watch.takeListChange();
    m_relist = m_inCycle = false;
    m_nextCycle = m_now;
    m_cycleBegan = -1;
}

void LinkMachine::beginCycleIfDue()
{
    if (m_inCycle || m_now < m_nextCycle || !anyReady())
        return;
    if (m_watch.takeListChange())
        relist();
    const Micros interval = std::max(1, m_settings.intervalMs) * PerMs;
    // Timers are a little late by nature.
    if (m_cycleBegan >= 0 && m_now > m_cycleBegan + interval + interval / 10)
        ++m_statistics.lateCycles;
    m_cycleBegan = m_now;
    // The next on the grid: what was missed is not made up for.
    m_nextCycle = m_now + interval - (m_now - m_phase) % interval;
    m_inCycle = true;
    m_cyclicLeft = m_listed;
    m_apartLeft = 0;
    m_apartQueued = false;
    m_cycleTrips = 0;
    m_cycleTag = m_cycleTag % MostTags + 1;
    expireValues();
    cycleProgress();
}

/// Behind the others, since a refusal ends the connection. Where nothing is read at all, the probe.
void LinkMachine::readApart()
{
    m_apartQueued = true;
    for (const auto& entry : m_stations) {
        if (!isReady(entry.second))
            continue;
        if (m_now >= entry.second.nextTrial)
            m_watch.beginTrial(entry.first, m_now);
        QVector<ReadBlock> blocks = m_watch.apartBlocks(entry.first);
        if (blocks.isEmpty() && isIdle(entry.first))
            blocks.append(probeOf(entry.first));
        for (const ReadBlock& block : std::as_const(blocks)) {
            queueRead(block, ApartKey, m_cycleTag);
            ++m_apartLeft;
        }
    }
}

/// Whoever asks for something keeps the link up by that.
bool LinkMachine::isIdle(int number) const
{
    return isProbed(m_stations.at(number)) && m_watch.cyclicBlocks(number).isEmpty() &&
           !m_requests.hasAny(number);
}

void LinkMachine::cycleProgress()
{
    if (!m_inCycle || m_cyclicLeft > 0)
        return;
    bool isEmpty = false; // there is nothing to read, not even a probe
    if (!m_apartQueued) {
        readApart();
        isEmpty = m_listed == 0 && m_apartLeft == 0;
    }
    if (m_apartLeft > 0)
        return;
    m_inCycle = false;
    // After a quicker cycle than the last one values live shorter.
    if (std::exchange(m_lastTrips, m_cycleTrips) > m_cycleTrips)
        expireValues();
    bool anyAnswered = false;
    bool isWaitedFor = false; // it is too early to say that all was read
    for (auto& entry : m_stations) {
        Station& station = entry.second;
        anyAnswered = anyAnswered || station.answered;
        // Who comes back at once was not told to be gone.
        isWaitedFor = isWaitedFor || station.hurries || (isEmpty && m_requests.hasAny(entry.first));
        if (isReady(station) && !station.isUp && asksNothing(entry.first))
            up(entry.first); // a new list has left it nothing to wait for
        // Where nothing is asked, that the connection lasts has to do.
        if (isReady(station) && station.isUp &&
            (station.answered || m_now >= station.upSince + LinkHealth::LongestDelay))
            station.health.goodCycle();
        station.answered = false;
    }
    if (!anyAnswered)
        m_nextCycle = std::max(m_nextCycle, m_now + RestingInterval);
    tellChanges();
    if (isWaitedFor)
        return;
    ++m_statistics.cycles;
    m_news.push_back({m_list, [this] { m_orders.tellCycle(); }});
}

/// An interval may be shorter than it takes to read everything once, or all of what took `trips`.
Micros LinkMachine::valueLifetime(Micros trips) const
{
    const Micros interval = m_settings.intervalMs * PerMs;
    // As quickly as possible, so that how long it takes is not known beforehand.
    const Micros floor = interval < ShortestInterval ? m_settings.timeoutMs * PerMs : 0;
    return IntervalsToStale * std::max({interval, m_cycleTrips, m_lastTrips, floor, trips});
}

void LinkMachine::expireValues()
{
    m_nextExpiry = m_watch.expire(m_now - valueLifetime(), valueLifetime());
}

} // namespace s7200
