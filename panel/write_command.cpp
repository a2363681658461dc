#include "panel/commands.h"
#include "panel/requests.h"

namespace s7200::panel
{

namespace
{

bool resolveJobs(CommandLine& line, QVector<Job>* jobs, QString* errors)
{
    QStringList faults;
    QVector<Item> items;
    for (const QString& text : line.operands()) {
        Job job;
        QString error;
        if (!line.resolveAssignment(text, &job.item, &job.elements, &error))
            faults.append(error);
        jobs->append(job);
        items.append(job.item);
    }
    if (jobs->isEmpty())
        faults.append(QStringLiteral("name at least one variable and its value, as in VW100=7"));
    *errors = faults.join(QLatin1Char('\n'));
    // Labels among all of them; a tag that was not found has no variable to name.
    const QStringList labels = faults.isEmpty() ? line.labelsOf(items) : QStringList();
    for (int i = 0; i < int(labels.size()); ++i)
        (*jobs)[i].item.label = labels.at(i);
    return faults.isEmpty();
}

ExitStatus writeAndReport(const Session& session, const QVector<Job>& jobs, bool verify)
{
    const QVector<Written> results = writeJobs(session, jobs, verify);
    FailureReport report(session);
    for (int i = 0; i < int(jobs.size()); ++i) {
        const Item& item = jobs.at(i).item;
        const Written& written = results.at(i);
        if (!written.readBack.isEmpty())
            print(item.label + QLatin1Char(' ') + item.tag.text(written.readBack));
        if (written.result)
            complain(item.label + QStringLiteral(": written"));
        report.add(item, written.result);
    }
    return report.finish();
}

int runWrite(CommandLine& line)
{
    QString error;
    QVector<Job> jobs;
    if (!resolveJobs(line, &jobs, &error))
        return usageErrors(error);
    const bool verify = line.options().isSet(QStringLiteral("verify"));
    return runStarted(
        line, [&](const Session& session) { return writeAndReport(session, jobs, verify); });
}

} // namespace

Command writeCommand()
{
    return {"write",
            "VARIABLE=VALUE...",
            "write variables",
            "Writes each variable and waits until the controller has acknowledged it.\n"
            "Nothing is written beside what is named; nothing is sent if any argument is\n"
            "wrong. Values are decimal, signed, 0x hexadecimal, 0b binary, true or false for\n"
            "bits, REAL (21.5) for double words; one for each element, separated by commas:\n"
            "VW100x3=1,2,3. A whole number written to VD4 is an integer, to VD4/float a REAL.\n"
            "A tag takes what it shows: its scaled value. Inputs and timer and counter bits\n"
            "cannot be written.",
            TakesControllers | TakesTags | TakesVariables | NeedsController,
            {{QStringLiteral("verify"),
              QStringLiteral("Read each variable back, print it, and compare.")}},
            runWrite};
}

} // namespace s7200::panel
