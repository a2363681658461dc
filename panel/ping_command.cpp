#include "panel/commands.h"

#include "panel/link_probe.h"
#include "panel/messages.h"
#include "panel/progress_line.h"
#include "panel/session.h"
#include "wire/s7_fields.h"

#include <algorithm>
#include <limits>
#include <vector>

namespace s7200::panel
{

namespace
{

const char* const Description =
    "Connects, shakes hands and reads the controller's status word (SMW0) some times,\n"
    "step by step: name look-up, TCP connection, TPDU connection (TSAPs), setup\n"
    "communication, read. Says which step failed and what usually causes it; prints\n"
    "what was granted, each round trip, and their minimum, median, 99th percentile\n"
    "and maximum. With --remote there is no handshake: the reads follow the TCP\n"
    "connection. It takes one of the module's connections while it runs.";

QString milliseconds(qint64 microseconds)
{
    return QString::number(double(microseconds) / 1000, 'f', 3);
}

/// Of one controller, with its name in front where there are several.
class PingReport
{
public:
    PingReport(const Session& session, int index)
        : m_session(session), m_index(index),
          m_prefix(session.count() > 1 ? session.name(index) + QStringLiteral(": ") : QString())
    {
    }

    void begin(const ProbeResults& results) const
    {
        const ControllerSettings& settings = m_session.controller(m_index).settings();
        const QString granted =
            settings.remoteAccess
                ? QStringLiteral("remote access, no handshake")
                : QStringLiteral("own TSAP %1, the controller's %2, PDU length %3 granted")
                      .arg(wire::tsapText(settings.localTsap), wire::tsapText(settings.remoteTsap))
                      .arg(results.grantedPdu);
        print(QStringLiteral("%1: connected in %2 ms, %3")
                  .arg(m_session.name(m_index))
                  .arg(results.connectMs, 0, 'f', 3)
                  .arg(granted));
    }

    void answered(int number, qint64 roundTripUs) const
    {
        print(
            QStringLiteral("%1%2: %3 ms").arg(m_prefix).arg(number).arg(milliseconds(roundTripUs)));
    }

    void failed(int number, const QString& what) const
    {
        print(QStringLiteral("%1%2: %3").arg(m_prefix).arg(number).arg(what));
    }

    ExitStatus finish(const ProbeResults& results) const
    {
        if (!results.gaveUp && results.reads > 0)
            printSummary(results);
        if (results.failure)
            explain(results);
        else if (results.roundTripsUs.isEmpty())
            complain(m_session.name(m_index) + QStringLiteral(": stopped, nothing has answered"));
        if (results.roundTripsUs.isEmpty())
            return results.failure ? exitStatusOf(results.failure.cause) : ExitNoAnswer;
        return results.failure ? ExitSomeFailed : ExitGood;
    }

private:
    void printSummary(const ProbeResults& results) const
    {
        QString text = m_prefix + QStringLiteral("%1, %2 answered")
                                      .arg(counted(quint64(results.reads), "read"))
                                      .arg(results.roundTripsUs.size());
        if (!results.roundTripsUs.isEmpty())
            text +=
                QStringLiteral("; round trip min %1, median %2, p99 %3, max %4 ms")
                    .arg(milliseconds(results.percentile(0)), milliseconds(results.percentile(0.5)),
                         milliseconds(results.percentile(0.99)),
                         milliseconds(results.percentile(1)));
        QStringList failures;
        for (int cause = 0; cause < CauseCount; ++cause) {
            if (results.failures.at(std::size_t(cause)) > 0)
                failures.append(QStringLiteral("%1 %2")
                                    .arg(results.failures.at(std::size_t(cause)))
                                    .arg(describe(Cause(cause))));
        }
        if (!failures.isEmpty())
            text += QStringLiteral("; failures: ") + failures.join(QStringLiteral(", "));
        print(text);
    }

    void explain(const ProbeResults& results) const
    {
        if (results.gaveUp)
            complain(
                QStringLiteral("%1: %2 failed: %3")
                    .arg(m_session.name(m_index), describe(results.step), results.failure.detail));
        const QString cause = usualCause(results, m_session.controller(m_index).settings());
        if (!cause.isEmpty())
            complain(QStringLiteral("usual cause: ") + cause);
    }

    const Session& m_session;
    const int m_index;
    const QString m_prefix;
};

void tellOn(LinkProbe* probe, const PingReport& report, int* open,
            std::unique_ptr<ProgressLine>* progress)
{
    QObject::connect(probe, &LinkProbe::connected, [&report, probe, progress] {
        progress->reset();
        report.begin(probe->results());
    });
    QObject::connect(probe, &LinkProbe::answered, [&report](int number, qint64 roundTripUs) {
        report.answered(number, roundTripUs);
    });
    QObject::connect(probe, &LinkProbe::failed,
                     [&report](int number, const QString& what) { report.failed(number, what); });
    QObject::connect(probe, &LinkProbe::finished, [open] {
        if (--*open == 0)
            end(ExitGood);
    });
}

int run(CommandLine& line)
{
    QString error;
    int count = 10;
    if (!line.operands().isEmpty())
        return usageError(QStringLiteral("ping takes no operands; --controller says whom"));
    if (!line.number("count", 1, std::numeric_limits<int>::max(), &count, &error))
        return usageError(error);
    const std::unique_ptr<Session> session = Session::open(line, &error);
    if (!session)
        return usageError(error);
    session->setInterruptStatus(ExitGood); // what was measured until then counts
    int open = session->count();
    std::vector<PingReport> reports;
    for (int i = 0; i < session->count(); ++i)
        reports.emplace_back(*session, i);
    std::unique_ptr<ProgressLine> progress; // until there is something to print
    std::vector<std::unique_ptr<LinkProbe>> probes;
    for (int i = 0; i < session->count(); ++i) {
        const ControllerSettings& settings = session->controller(i).settings();
        std::unique_ptr<DriverDesk> desk = DriverDesk::open(settings, &error);
        if (!desk)
            return usageError(error);
        probes.emplace_back(new LinkProbe(settings, std::move(desk), count));
        tellOn(probes.back().get(), reports[size_t(i)], &open, &progress);
    }
    progress.reset(new ProgressLine(QStringLiteral("connected"), open));
    for (const auto& probe : probes)
        probe->start();
    const int status = runEventLoop();
    progress.reset();
    if (status != ExitGood)
        return status;
    std::vector<ExitStatus> statuses;
    for (size_t i = 0; i < probes.size(); ++i)
        statuses.push_back(reports[i].finish(probes[i]->results()));
    const bool alike = std::count(statuses.begin(), statuses.end(), statuses.front()) ==
                       std::ptrdiff_t(statuses.size());
    return alike ? statuses.front() : ExitSomeFailed;
}

} // namespace

Command pingCommand()
{
    return {"ping",
            "",
            "try a connection step by step",
            Description,
            TakesControllers | TakesInterval | NeedsController,
            {{"count", "Reads (default 10).", "n", "10"}},
            run};
}

} // namespace s7200::panel
