#include "panel/statistics.h"

namespace s7200::panel
{

namespace
{

QString milliseconds(qint64 microseconds)
{
    return QString::number(double(microseconds) / 1000, 'f', 2);
}

} // namespace

void addStatistics(const LinkStatistics& one, LinkStatistics* all)
{
    all->cycles += one.cycles;
    all->lateCycles += one.lateCycles;
    all->requests += one.requests;
    all->retries += one.retries;
    all->connections += one.connections;
    all->reconnects += one.reconnects;
    all->linkLosses += one.linkLosses;
    all->roundTrip.merge(one.roundTrip);
    for (int cause = 0; cause < CauseCount; ++cause)
        all->failures[size_t(cause)] += one.failures[size_t(cause)];
}

LinkStatistics statisticsOf(const Session& session)
{
    LinkStatistics all;
    for (int i = 0; i < session.count(); ++i)
        addStatistics(session.controller(i).statistics(), &all);
    return all;
}

QString statisticsText(const LinkStatistics& all, qint64 elapsedMs)
{
    QStringList parts = {counted(all.cycles, "cycle"), counted(all.requests, "request"),
                         counted(all.retries, "retry", "retries"),
                         counted(all.connections, "connection"),
                         counted(all.linkLosses, "link loss", "link losses")};
    if (all.lateCycles > 0)
        parts[0] += QStringLiteral(" (%1 late)").arg(all.lateCycles);
    if (all.reconnects > 0)
        parts.append(counted(all.reconnects, "reconnect"));
    return parts.join(QStringLiteral(", ")) +
           QStringLiteral(" in %1 s").arg(double(elapsedMs) / 1000, 0, 'f', 1);
}

void printStatistics(const Session& session, qint64 elapsedMs)
{
    const LinkStatistics all = statisticsOf(session);
    complain(statisticsText(all, elapsedMs));
    QStringList failures;
    for (int cause = 1; cause < CauseCount; ++cause) {
        if (all.failures[size_t(cause)] > 0)
            failures.append(QStringLiteral("%1 %2")
                                .arg(describe(Cause(cause)))
                                .arg(all.failures[size_t(cause)]));
    }
    if (!failures.isEmpty())
        complain(QStringLiteral("failures: ") + failures.join(QStringLiteral(", ")));
    if (all.roundTrip.count() > 0)
        complain(QStringLiteral("round trip: %1 ms at least, %2 median, %3 p99, %4 at most")
                     .arg(milliseconds(all.roundTrip.minimum()),
                          milliseconds(all.roundTrip.percentile(0.5)),
                          milliseconds(all.roundTrip.percentile(0.99)),
                          milliseconds(all.roundTrip.maximum())));
}

} // namespace s7200::panel
