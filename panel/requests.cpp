#include "panel/requests.h"

#include "panel/merged_reads.h"
#include "panel/progress_line.h"

#include <algorithm>
#include <utility>

namespace s7200::panel
{

namespace
{

/// Requests under way in an event loop of their own.
class Batch
{
public:
    Batch(const Session& session, const char* what, int total)
        : m_session(session), m_open(total), m_progress(QLatin1String(what), total),
          m_troubles(std::size_t(session.count()))
    {
    }

    void read(int controller, const Variable& variable, const Controller::Done& done)
    {
        m_session.controller(controller).read(variable, [=](const Result& result) {
            if (isRepeated(controller, result))
                read(controller, variable, done);
            else
                done(result);
        });
    }

    void write(int controller, const Job& job, const Controller::Done& done)
    {
        const auto written = [=](const Result& result) {
            if (isRepeated(controller, result))
                write(controller, job, done);
            else
                done(result);
        };
        m_session.controller(controller).write(job.item.tag.variable, job.elements, written);
    }

    void finishOne()
    {
        m_progress.advance();
        if (--m_open == 0)
            m_loop.quit();
    }

    void wait()
    {
        if (m_open > 0)
            m_loop.exec();
        // The program is to end: what is open is answered by this.
        for (int i = 0; i < m_session.count() && m_open > 0; ++i)
            m_session.controller(i).stop();
    }

private:
    struct Trouble {
        int failures = 0;        ///< In a row.
        bool progresses = false; ///< Something was answered since a reply was missing.
    };

    /// A connection that was closed costs time and no more. Where a reply was missing, the driver
    /// has asked again already, but it counts failures that lie far apart together.
    bool isRepeated(int controller, const Result& result)
    {
        const int retries = m_session.controller(controller).settings().retries;
        Trouble& trouble = m_troubles[std::size_t(controller)];
        switch (result.cause) {
        case Cause::None:
        case Cause::Refused:
            trouble = {0, true};
            return false;
        case Cause::Dropped: // another one's failure, which has been counted
            break;
        case Cause::Closed:
            ++trouble.failures;
            break;
        case Cause::TimedOut:
        case Cause::WrongLength:
        case Cause::WrongReference:
        case Cause::NotS7:
            trouble = {trouble.progresses ? trouble.failures + 1 : retries + 1, false};
            break;
        default:
            trouble.failures = retries + 1;
        }
        return !result.wasSent && trouble.failures <= retries;
    }

    const Session& m_session;
    int m_open;
    ProgressLine m_progress;
    QEventLoop m_loop;
    std::vector<Trouble> m_troubles; ///< By controller.
};

/// A result that says what a reader has to know of a value that may have been written.
Result withDetail(const Result& result, const char* known)
{
    Result told = result;
    told.detail = QLatin1String(known) + result.detail;
    told.wasSent = true;
    return told;
}

void readBack(const Session& session, const QVector<Job>& jobs, QVector<Written>* all)
{
    QVector<int> indexes;
    QVector<Item> items;
    for (int i = 0; i < int(jobs.size()); ++i) {
        const Result& result = all->at(i).result;
        if (result || (result.wasSent && result.cause != Cause::Refused)) {
            indexes.append(i);
            items.append(jobs.at(i).item);
        }
    }
    const QVector<Result> results = readItems(session, items, "read back");
    for (int k = 0; k < int(items.size()); ++k) {
        const Job& job = jobs.at(indexes.at(k));
        Written& written = (*all)[indexes.at(k)];
        if (!results.at(k)) {
            written.result = written.result ? withDetail(results.at(k), "written, not read back: ")
                                            : outcomeOf(written.result);
            continue;
        }
        const Result sent = std::exchange(written.result, Result());
        written.readBack = results.at(k).value.elements;
        if (written.readBack == job.elements)
            continue;
        written.result.cause = Cause::Invalid;
        const QString wanted = job.item.tag.text(job.elements);
        const QString found = job.item.tag.text(written.readBack);
        written.result.detail = sent
                                    ? QStringLiteral("written %1, reads back %2").arg(wanted, found)
                                    : QStringLiteral("reads back %1 in place of %2: %3")
                                          .arg(found, wanted, sent.detail);
    }
}

} // namespace

QVector<Result> readItems(const Session& session, const QVector<Item>& items, const char* what)
{
    QVector<Result> results(items.size());
    Batch batch(session, what, int(items.size()));
    const auto readAlone = [&](int index) {
        const Item& item = items.at(index);
        batch.read(item.controller, item.tag.variable, [&, index](const Result& result) {
            results[index] = result;
            batch.finishOne();
        });
    };
    for (const MergedRead& read : mergedReads(items)) {
        if (read.indexes.size() == 1) {
            readAlone(read.indexes.first());
            continue;
        }
        batch.read(read.controller, read.variable, [&, read](const Result& result) {
            for (int index : read.indexes) {
                if (result.cause == Cause::Refused) { // one of them, perhaps
                    readAlone(index);
                    continue;
                }
                results[index] = result;
                if (result)
                    results[index].value.elements = elementsWithin(
                        items.at(index).tag.variable, read.variable, result.value.elements);
                batch.finishOne();
            }
        });
    }
    batch.wait();
    return results;
}

Result outcomeOf(const Result& result)
{
    if (result || !result.wasSent || result.cause == Cause::Refused)
        return result;
    return withDetail(result, "sent, but whether it was written is not known: ");
}

QVector<Written> writeJobs(const Session& session, const QVector<Job>& jobs, bool verify)
{
    QVector<Written> all(jobs.size());
    {
        Batch batch(session, "written", int(jobs.size()));
        for (int i = 0; i < int(jobs.size()); ++i) {
            batch.write(jobs.at(i).item.controller, jobs.at(i), [&, i](const Result& result) {
                all[i].result = result;
                all[i].acknowledged = bool(result);
                batch.finishOne();
            });
        }
        batch.wait();
    }
    const bool isStopped = std::any_of(all.begin(), all.end(), [](const Written& written) {
        return written.result.cause == Cause::Stopped;
    });
    if (verify && !isStopped) {
        readBack(session, jobs, &all);
    } else {
        for (Written& written : all)
            written.result = outcomeOf(written.result);
    }
    return all;
}

int runStarted(const CommandLine& line, const std::function<ExitStatus(const Session&)>& body)
{
    QString error;
    const std::unique_ptr<Session> session = Session::open(line, &error);
    if (!session || !session->start(&error))
        return usageError(error);
    end(body(*session));
    return runEventLoop();
}

int usageErrors(const QString& lines)
{
    for (const QString& line : lines.split(QLatin1Char('\n')))
        usageError(line);
    return ExitUsage;
}

} // namespace s7200::panel
