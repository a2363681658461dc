#include "tests/simulation_links.h"

#include <algorithm>

namespace s7200::simulation
{

namespace
{

constexpr Micros Ms = 1000;
constexpr Micros FirstDelay = 200 * Ms;
constexpr Micros LongestDelay = 10000 * Ms;
constexpr Micros TimerLateness = 25 * Ms;

QString atStation(int station, const QString& what)
{
    return QStringLiteral("station %1: %2").arg(station).arg(what);
}

} // namespace

LinkJudge::LinkJudge(const ControllerSettings& settings, const Record& record,
                     const ValueJudge& values)
    : m_settings(settings), m_record(record), m_values(values)
{
}

/// What a wait that began then may end late.
Micros LinkJudge::lateness(Micros since) const
{
    return TimerLateness + std::max(Micros(0), m_pausedUntil - since);
}

QString LinkJudge::opens(int station, Micros now)
{
    Attempts& one = m_attempts[station];
    if (one.failedAt < 0) { // the first of all
        one.least = one.most = FirstDelay;
        one.isWaiting = false;
        one.answers = false;
        return QString();
    }
    const Micros waited = now - one.failedAt;
    const Micros least = one.isNews ? FirstDelay : one.leastNow;
    one.isWaiting = one.answers = false;
    if (waited < least * 70 / 100)
        return atStation(station, QStringLiteral("connects again after %1 ms, too soon for %2")
                                      .arg(waited / Ms)
                                      .arg(least / Ms));
    return QString();
}

void LinkJudge::closes(int station, Micros now)
{
    Attempts& one = m_attempts[station];
    if (one.isWaiting)
        return;
    one.isWaiting = true;
    one.failedAt = now;
    const ExchangePtr& last = m_record.current();
    one.isNews = last && last->station == station && last->end == Exchange::Refused &&
                 last->asked.kind >= Asked::Read;
    // A cycle may have gone well that was not told of, where there are several stations or nothing
    // is watched; and where nothing is asked at all, that a connection lasts has to do.
    const bool isQuiet = !m_values.hasWatched(station) || !m_settings.stations.isEmpty();
    const bool asksNothing = !m_settings.probe || one.probeMayEnd;
    if ((one.answers && isQuiet) ||
        (asksNothing && now >= m_record.connection(station)->orderedAt + LongestDelay))
        one.least = FirstDelay;
    one.leastNow = one.least;
    one.mostNow = one.most;
    one.most = std::min(2 * one.most, LongestDelay);
    if (!one.isNews)
        one.least = std::min(2 * one.least, LongestDelay);
}

void LinkJudge::jobEnded(const Exchange& exchange, bool wasAsked)
{
    Attempts& one = m_attempts[exchange.station];
    const bool isProbe = exchange.asked.kind == Asked::Read &&
                         exchange.asked.span.area == Area::SM && exchange.asked.span.first == 0 &&
                         exchange.asked.span.bytes == 2;
    one.refusedProbes = isProbe && exchange.end == Exchange::Refused ? one.refusedProbes + 1 : 0;
    one.probeMayEnd = one.probeMayEnd || one.refusedProbes > m_settings.retries;
    const bool isAnswer = exchange.end == Exchange::Good || (exchange.end == Exchange::Refused &&
                                                             exchange.asked.kind == Asked::Write);
    if (exchange.asked.kind < Asked::Read || !isAnswer)
        return;
    one.answers = true;
    if (wasAsked)
        one.least = FirstDelay;
}

void LinkJudge::cycleTold()
{
    ++m_cycles;
    for (auto& entry : m_attempts) {
        const Connection* const connection = m_record.connection(entry.first);
        if (!entry.second.answers || !connection || connection->state != Connection::Open)
            continue;
        entry.second.least = entry.second.most = FirstDelay;
    }
}

QString LinkJudge::told(const LinkStatus& status)
{
    ++states[std::size_t(status.state)];
    ++causes[std::size_t(status.cause)];
    Attempts& one = m_attempts[status.station];
    const bool isUp = status.state == LinkState::Up;
    const Connection* const connection = m_record.connection(status.station);
    if (isUp && (!connection || connection->state == Connection::Ended))
        return atStation(status.station, QStringLiteral("told as up without a connection"));
    if (isUp && one.toldUp)
        return atStation(status.station, QStringLiteral("told as up twice"));
    if (isUp) {
        m_returns += one.everUp ? 1 : 0;
        one.everUp = true;
    } else if (one.toldUp && status.state != LinkState::Stopped) {
        ++m_losses;
    }
    one.toldUp = isUp;
    return QString();
}

QString LinkJudge::judgeWaits(int station, const Attempts& one, Micros now) const
{
    const Connection* const connection = m_record.connection(station);
    const Micros timeout = m_settings.timeoutMs * Ms;
    if (connection && connection->state == Connection::Opening &&
        now > connection->orderedAt + timeout + lateness(connection->orderedAt))
        return atStation(station, QStringLiteral("does not give up a connection attempt"));
    if (one.isWaiting && now > one.failedAt + one.mostNow * 95 / 100 + lateness(one.failedAt))
        return atStation(station, QStringLiteral("does not connect again, %1 ms after a failure")
                                      .arg((now - one.failedAt) / Ms));
    return QString();
}

/// Who has one link and nothing under way must ask for something now and then.
QString LinkJudge::judgeSilence(Micros now) const
{
    if (!m_settings.stations.isEmpty())
        return QString();
    const int station = m_settings.defaultStation;
    const Connection* const connection = m_record.connection(station);
    const ExchangePtr& last = m_record.current();
    if (!connection || connection->state != Connection::Open || !last ||
        last->connection != connection->number || last->end == Exchange::Waiting)
        return QString();
    const Micros since = m_record.idleSince;
    const bool mayRest = !m_settings.probe || m_attempts.at(station).probeMayEnd;
    const Micros longest = std::max(m_settings.intervalMs, 1000) * Ms;
    if (now <= since + longest + lateness(since) || (mayRest && !m_values.hasWatched(station)))
        return QString();
    return QStringLiteral("falls silent: nothing for %1 ms").arg((now - since) / Ms);
}

QString LinkJudge::judgeCounts(const LinkMachine& machine) const
{
    const LinkStatistics& said = machine.statistics();
    const Record::Counts& real = m_record.counts;
    const struct {
        const char* what;
        quint64 said;
        quint64 real;
    } pairs[] = {
        {"requests", said.requests, real.sent},
        {"connections", said.connections, real.connections},
        {"no connection", said.failed(Cause::NoConnection), real.noConnection},
        {"time-outs", said.failed(Cause::TimedOut), real.timeOuts},
        {"round trips", said.roundTrip.count(), real.goodOnce},
        {"retries", said.retries, real.repeats},
    };
    for (const auto& pair : pairs) {
        if (pair.said != pair.real)
            return QStringLiteral("counts %1 %2, and there were %3")
                .arg(pair.said)
                .arg(QLatin1String(pair.what))
                .arg(pair.real);
    }
    return QString();
}

QString LinkJudge::judge(const LinkMachine& machine, Micros now)
{
    for (const auto& entry : m_attempts) {
        const QString wrong = judgeWaits(entry.first, entry.second, now);
        if (!wrong.isEmpty())
            return wrong;
    }
    const QString wrong = judgeSilence(now);
    return wrong.isEmpty() ? judgeCounts(machine) : wrong;
}

QString LinkJudge::judgeAtEnd(const LinkMachine& machine) const
{
    const LinkStatistics& said = machine.statistics();
    if (said.linkLosses != m_losses || said.reconnects != m_returns)
        return QStringLiteral("counts %1 losses and %2 returns, and has told %3 and %4")
            .arg(said.linkLosses)
            .arg(said.reconnects)
            .arg(m_losses)
            .arg(m_returns);
    return said.cycles < m_cycles ? QStringLiteral("tells cycles that it does not count")
                                  : QString();
}

} // namespace s7200::simulation
