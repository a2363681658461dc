#include "panel/requests.h"

#include "panel/merged_reads.h"
#include "panel/progress_line.h"

namespace s7200::panel
{

namespace
{

/// Requests under way in an event loop of their own.
class Batch
{
public:
    Batch(const Session& session, const char* what, int total)
        : m_session(session), m_open(total), m_progress(QLatin1String(what), total)
    {
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
    const Session& m_session;
    int m_open;
    ProgressLine m_progress;
    QEventLoop m_loop;
};

} // namespace

QVector<Result> readItems(const Session& session, const QVector<Item>& items)
{
    QVector<Result> results(items.size());
    Batch batch(session, "read", int(items.size()));
    const auto readAlone = [&](int index) {
        const Item& item = items.at(index);
        session.controller(item.controller)
            .read(item.tag.variable, [&, index](const Result& result) {
                results[index] = result;
                batch.finishOne();
            });
    };
    for (const MergedRead& read : mergedReads(items)) {
        if (read.indexes.size() == 1) {
            readAlone(read.indexes.first());
            continue;
        }
        session.controller(read.controller).read(read.variable, [&, read](const Result& result) {
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

QVector<Written> writeJobs(const Session& session, const QVector<Job>& jobs, bool verify)
{
    QVector<Written> all(jobs.size());
    Batch batch(session, verify ? "written and read back" : "written", int(jobs.size()));
    for (int i = 0; i < int(jobs.size()); ++i) {
        Controller& controller = session.controller(jobs.at(i).item.controller);
        const Variable& variable = jobs.at(i).item.tag.variable;
        const auto readBack = [&all, &jobs, &batch, i](const Result& result) {
            all[i].result = result;
            all[i].readBack = result.value.elements;
            all[i].verified = result && all.at(i).readBack == jobs.at(i).elements;
            batch.finishOne();
        };
        const auto written = [&, verify, i, readBack](const Result& result) {
            all[i].result = result;
            all[i].written = bool(result);
            if (result && verify)
                controller.read(variable, readBack);
            else
                batch.finishOne();
        };
        controller.write(variable, jobs.at(i).elements, written);
    }
    batch.wait();
    return all;
}

Result resultOf(const Job& job, const Written& written)
{
    Result result = written.result;
    if (result && !written.readBack.isEmpty() && !written.verified) {
        result.cause = Cause::Invalid;
        result.detail =
            QStringLiteral("written %1, reads back %2")
                .arg(job.item.tag.text(job.elements), job.item.tag.text(written.readBack));
    }
    return result;
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
