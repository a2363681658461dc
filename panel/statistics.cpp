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

LinkStatistics statisticsOf(const Session& session)
{
    LinkStatistics all;
    for (int i = 0; i < session.count(); ++i) {
        const LinkStatistics& one = session.controller(i).statistics();
        all.cycles += one.cycles;
        all.requests += one.requests;
        all.retries += one.retries;
        all.linkLosses += one.linkLosses;
        all.roundTrip.merge(one.roundTrip);
        for (int cause = 0; cause < CauseCount; ++cause)
            all.failures[size_t(cause)] += one.failures[size_t(cause)];
    }
    return all;
}

void printStatistics(const Session& session, qint64 elapsedMs)
{
    const LinkStatistics all = statisticsOf(session);
    complain(QStringLiteral("%1, %2, %3, %4 in %5 s")
                 .arg(counted(all.cycles, "cycle"), counted(all.requests, "request"),
                      counted(all.retries, "retry", "retries"),
                      counted(all.linkLosses, "link loss", "link losses"))
                 .arg(double(elapsedMs) / 1000, 0, 'f', 1));
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
