// The part of LinkMachine that keeps account of the stations' links.

#include "host/link_machine.h"

#include <algorithm>
#include <utility>

namespace s7200
{

namespace
{

/// Each trial that ends in a refusal costs a connection.
constexpr Micros TrialSpacing = 10 * 1000 * 1000;

} // namespace

bool LinkMachine::isConnected(const Station& station)
{
    return station.phase == Phase::Handshake || station.phase == Phase::Ready;
}

bool LinkMachine::isReady(const Station& station)
{
    return station.phase == Phase::Ready && station.isOpen;
}

bool LinkMachine::isProbed(const Station& station) const
{
    return m_settings.probe && !station.probeRefused;
}

/// Requests end at once where the next attempt has no better prospect than the last one. Where
/// somebody listens, a lost reply to a handshake is repeated as often as one to a request.
bool LinkMachine::isGivenUp(const Station& station) const
{
    const int attempts = station.health.attempts();
    if (station.phase != Phase::Waiting || attempts == 0 || station.hurries)
        return false;
    switch (station.health.failure().cause) {
    case Cause::NoConnection:
    case Cause::ConnectionRefused:
    case Cause::SetupRefused:
        return true;
    default:
        return attempts > m_settings.retries;
    }
}

/// The handshake is done. After failures the link counts as up only once a request was answered:
/// there are controllers that shake hands and then answer nothing.
void LinkMachine::ready(int number)
{
    Station& station = m_stations.at(number);
    station.phase = Phase::Ready;
    if (m_watch.cyclicBlocks(number).isEmpty())
        m_relist = true; // without the request in whose place it shook hands
    if (!m_inCycle)
        m_nextCycle = m_now;
    if (station.health.attempts() == 0 || asksNothing(number))
        up(number);
}

bool LinkMachine::asksNothing(int number) const
{
    return !isProbed(m_stations.at(number)) && m_watch.cyclicBlocks(number).isEmpty() &&
           m_watch.apartBlocks(number).isEmpty();
}

void LinkMachine::up(int number)
{
    Station& station = m_stations.at(number);
    if (station.isUp)
        return;
    station.isUp = true;
    station.upSince = m_now;
    if (station.wasUp)
        ++m_statistics.reconnects;
    station.wasUp = true;
    station.health.up();
    m_watch.linkUp(number);
    // Had a refusal brought the last link down, trying again would bring this one down as well.
    if (!station.hurries)
        m_watch.forgive(number);
    station.hurries = false;
    tellLink(number);
}

/// The driver has to find out that the connection is gone, by a request of its own.
void LinkMachine::disconnected(int number, const Failure& failure)
{
    Station& station = m_stations.at(number);
    station.isOpen = false;
    m_relist = true;
    if (m_transaction.isOpen && m_transaction.request.station == number) {
        replied(m_collector.whatCameInstead(), failure);
    } else {
        station.failure = failure;
        countFailure(failure.cause);
    }
}

/// Nothing more is sent or taken on this connection. The driver finds out by its own requests.
void LinkMachine::hangUp(int number)
{
    m_orders.close(number);
    m_stations.at(number).isOpen = false;
    m_relist = true;
}

void LinkMachine::attemptFailed(int number, const Failure& failure)
{
    closeStation(number, failure, false);
    if (isGivenUp(m_stations.at(number)))
        failWaiting(number, failure);
}

/// The driver has given up a request, and with it all that was queued for the station.
void LinkMachine::linkLost(const RW_VAR& request)
{
    const int number = request.station;
    Station& station = m_stations.at(number);
    const Failure failure = station.failure;
    const bool refused = failure.cause == Cause::Refused;
    if (station.isUp)
        ++m_statistics.linkLosses;
    // A single request ends here.
    const bool isWatched = request.host_key != ReadKey && request.host_key != WriteKey;
    const bool isApart = request.host_key == ApartKey;
    // The driver's count of failures goes on over good replies, so one refusal may be its last.
    const bool isCertain = std::exchange(m_refusals, 0) > m_settings.retries;
    // The probe, be it watched besides: which shows that the link is good without.
    if (refused && isCertain && blockOf(request) == probeOf(number))
        station.probeRefused = true;
    if (refused && isWatched && (isCertain || !isApart) &&
        m_watch.refused(blockOf(request), isApart, failure, m_now))
        station.health.hasLearnt();
    if (refused && isApart)
        station.nextTrial = m_now + TrialSpacing;
    dropActive(request, failure, refused);
    closeStation(number, failure, refused);
    if (failure.cause == Cause::SetupRefused)
        failWaiting(number, failure);
    else if (!refused)
        failWaiting(number,
                    {Cause::Dropped, QStringLiteral("dropped with the link: ") + failure.detail});
}

/// `news`: the failure will not repeat itself, since what was refused is not asked for again.
void LinkMachine::closeStation(int number, const Failure& failure, bool news)
{
    Station& station = m_stations.at(number);
    m_orders.close(number);
    m_relist = m_relist || isConnected(station);
    station.phase = Phase::Waiting;
    station.isOpen = station.isUp = station.answered = false;
    station.hurries = news && station.health.failedWithNews(failure, m_now);
    if (!news)
        station.health.failed(failure, m_now);
    m_watch.linkDown(number, failure);
    tellLink(number);
}

LinkState LinkMachine::stateOf(const Station& station) const
{
    if (m_stopped)
        return LinkState::Stopped;
    switch (station.phase) {
    case Phase::Connecting:
        return LinkState::Connecting;
    case Phase::Handshake:
        return LinkState::Handshake;
    case Phase::Ready:
        return station.isUp ? LinkState::Up : LinkState::Handshake;
    case Phase::Waiting:
        break;
    }
    if (station.health.attempts() == 0)
        return LinkState::Connecting;
    return pauseOf(station);
}

/// Between two attempts. After a refusal the link comes back at once.
LinkState LinkMachine::pauseOf(const Station& station) const
{
    const bool isDown = station.health.attempts() > m_settings.retries && !station.hurries;
    return isDown ? LinkState::Down : LinkState::Waiting;
}

LinkStatus LinkMachine::link(int number, Micros now) const
{
    LinkStatus status;
    status.station = number;
    const auto found = m_stations.find(number);
    if (found == m_stations.end())
        return status;
    const Station& station = found->second;
    status.state = stateOf(station);
    status.cause = station.health.failure().cause;
    status.detail = station.health.failure().detail;
    status.attempts = station.health.attempts();
    if (station.phase == Phase::Waiting)
        status.nextAttemptMs = std::max<qint64>(0, station.health.nextAttempt() - now) / 1000;
    return status;
}

/// Each trouble is told once: further attempts that fail for the same reason only count.
void LinkMachine::tellLink(int number)
{
    Station& station = m_stations.at(number);
    const LinkStatus status = link(number, m_now);
    LinkState shown = status.state;
    const bool attempting = shown == LinkState::Connecting || shown == LinkState::Handshake;
    if (attempting && status.attempts > 0)
        shown = pauseOf(station);
    if (shown == station.toldState && status.cause == station.toldCause)
        return;
    station.toldState = shown;
    station.toldCause = status.cause;
    m_news.push_back({0, [this, status] { m_orders.tellLink(status); }});
}

Value LinkMachine::value(int index, Micros now) const
{
    return m_watch.value(index, now);
}

} // namespace s7200
