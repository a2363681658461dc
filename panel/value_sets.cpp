// save, diff and apply: sets of values, such as recipes.

#include "panel/commands.h"
#include "panel/record_writer.h"
#include "panel/requests.h"

#include <s7200host/value_file.h>

#include <QFileInfo>
#include <QSaveFile>

#include <algorithm>

namespace s7200::panel
{

namespace
{

constexpr unsigned TakesHere = TakesControllers | NeedsController;

/// The tag as it is to be found again from the file alone.
Tag selfDescribing(const Item& item, const CommandLine& line)
{
    Tag tag = item.tag;
    if (line.controllers().size() > 1)
        tag.controller = line.controllers().at(item.controller).name;
    return tag;
}

/// What can be written, of all tags or of those named.
bool resolveWritable(CommandLine& line, QVector<Item>* items, QString* error)
{
    QVector<Item> all;
    const bool named = !line.operands().isEmpty();
    if (!(named ? line.resolve(line.operands(), &all, error) : line.resolveAllTags(&all, error)))
        return false;
    QStringList leftOut;
    for (const Item& item : std::as_const(all)) {
        if (item.tag.variable.area->writable)
            items->append(item);
        else
            leftOut.append(item.label);
    }
    if (items->isEmpty())
        *error = QStringLiteral("name what is to be saved by --tags FILE, or variables; inputs and "
                                "timer and counter bits cannot be written and are left out");
    else if (!leftOut.isEmpty())
        complain(QStringLiteral("left out, since it cannot be written: ") +
                 leftOut.join(QLatin1Char(' ')));
    return !items->isEmpty();
}

/// Where a set of values goes: a file, which holds all of it or what it held before, or standard
/// output.
class SetOutput
{
public:
    /// False with a one-line `error`. `file` empty: standard output.
    bool open(const QString& file, QString* error)
    {
        if (file.isEmpty())
            return true;
        m_file.setFileName(file);
        const QFileInfo found(file);
        // A device or a pipe would be replaced by a file.
        if (found.exists() && !found.isFile())
            *error = QStringLiteral("cannot write to %1: it is no file").arg(file);
        else if (!m_file.open(QIODevice::WriteOnly))
            *error = QStringLiteral("cannot write to %1: %2").arg(file, m_file.errorString());
        return error->isEmpty();
    }

    /// On the disk when it returns. The first failure is reported as one of output.
    void write(const QByteArray& bytes)
    {
        if (!m_file.isOpen()) {
            printBytes(bytes);
        } else if (m_file.write(bytes) != bytes.size() || !m_file.commit()) {
            failOutput(QStringLiteral("cannot write to %1: %2")
                           .arg(m_file.fileName(), m_file.errorString()));
        }
    }

private:
    QSaveFile m_file; ///< Beside the file until commit() puts it in its place.
};

ExitStatus save(const Session& session, const QVector<Item>& items, const CommandLine& line,
                SetOutput* output)
{
    const QVector<Result> results = readItems(session, items);
    FailureReport report(session);
    QVector<TagValue> values;
    for (int i = 0; i < int(items.size()); ++i) {
        report.add(items.at(i), results.at(i));
        values.append({selfDescribing(items.at(i), line), results.at(i).value.elements});
    }
    const ExitStatus status = report.finish();
    // Half a recipe, applied later, is worse than none.
    if (status == ExitGood)
        output->write(valueFile(values));
    else
        complain(QStringLiteral("nothing saved, since not all could be read"));
    return status;
}

int runSave(CommandLine& line)
{
    QString error;
    QVector<Item> items;
    SetOutput output;
    if (!resolveWritable(line, &items, &error) ||
        !output.open(line.options().value(QStringLiteral("output")), &error))
        return usageErrors(error);
    return runStarted(line,
                      [&](const Session& session) { return save(session, items, line, &output); });
}

/// The lines of a value file as jobs. All that is wrong is reported.
bool loadJobs(CommandLine& line, QVector<Job>* jobs, QString* errors)
{
    if (line.operands().size() != 1) {
        *errors = QStringLiteral("name one file of values, as save writes it");
        return false;
    }
    QStringList faults;
    const auto values = loadValueFile(line.operands().constFirst(), nullptr, &faults);
    *errors = faults.join(QLatin1Char('\n'));
    if (values && values->isEmpty())
        *errors = line.operands().constFirst() + QStringLiteral(": there is no value in it");
    if (!errors->isEmpty())
        return false;
    QVector<Tag> tags;
    for (const TagValue& value : *values)
        tags.append(value.tag);
    QVector<Item> items;
    const bool placed = line.resolveTags(tags, &items, errors);
    for (int i = 0; i < int(items.size()); ++i)
        jobs->append({items.at(i), values->at(i).elements});
    return placed;
}

QVector<Item> itemsOf(const QVector<Job>& jobs)
{
    QVector<Item> items;
    for (const Job& job : jobs)
        items.append(job.item);
    return items;
}

QString valueText(const Tag& tag, const QVector<quint32>& elements)
{
    return tag.unit.isEmpty() ? tag.exactText(elements)
                              : tag.exactText(elements) + QLatin1Char(' ') + tag.unit;
}

ExitStatus diff(const Session& session, const QVector<Job>& jobs)
{
    const QVector<Result> results = readItems(session, itemsOf(jobs));
    FailureReport report(session);
    bool differs = false;
    for (int i = 0; i < int(jobs.size()); ++i) {
        const Job& job = jobs.at(i);
        report.add(job.item, results.at(i));
        const QVector<quint32>& now = results.at(i).value.elements;
        if (!results.at(i) || now == job.elements)
            continue;
        differs = true;
        print(QStringLiteral("%1: saved %2, now %3")
                  .arg(job.item.label, valueText(job.item.tag, job.elements),
                       valueText(job.item.tag, now)));
    }
    const ExitStatus status = report.finish();
    return status == ExitGood && differs ? ExitDiffers : status;
}

/// One run of apply, when its file is good.
class Apply
{
public:
    Apply(const Session& session, const QVector<Job>& jobs, bool verify)
        : m_session(session), m_jobs(jobs), m_verify(verify), m_states(jobs.size())
    {
    }

    ExitStatus run()
    {
        const QVector<Result> now = readItems(m_session, itemsOf(m_jobs));
        FailureReport report(m_session);
        const bool allRead =
            std::all_of(now.begin(), now.end(), [](const Result& result) { return bool(result); });
        if (allRead)
            write(now);
        else
            complain(QStringLiteral("nothing written, since not all could be read"));
        for (int i = 0; i < int(m_jobs.size()); ++i) {
            if (!allRead && !now.at(i))
                m_states[i] = {now.at(i), unreadText(now.at(i))};
            report.add(m_jobs.at(i).item, m_states.at(i).result);
            print(m_jobs.at(i).item.label + QStringLiteral(": ") + m_states.at(i).text);
        }
        return report.finish();
    }

private:
    struct State {
        Result result;
        QString text = QStringLiteral("not written");
    };

    /// What differs from what was read.
    void write(const QVector<Result>& now)
    {
        QVector<Job> changes;
        QVector<int> indexes;
        for (int i = 0; i < int(m_jobs.size()); ++i) {
            if (now.at(i).value.elements == m_jobs.at(i).elements) {
                m_states[i].text = m_verify ? QStringLiteral("verified, was so already")
                                            : QStringLiteral("was so already");
                continue;
            }
            changes.append(m_jobs.at(i));
            indexes.append(i);
        }
        const QVector<Written> results = writeJobs(m_session, changes, m_verify);
        for (int k = 0; k < int(changes.size()); ++k) {
            const Tag& tag = changes.at(k).item.tag;
            State& state = m_states[indexes.at(k)];
            state.result = results.at(k).result;
            if (!state.result) {
                state.text = unwrittenText(results.at(k));
                continue;
            }
            state.text = (m_verify ? QStringLiteral("verified, %1 instead of %2")
                                   : QStringLiteral("written, %1 instead of %2"))
                             .arg(valueText(tag, changes.at(k).elements),
                                  valueText(tag, now.at(indexes.at(k)).value.elements));
        }
    }

    static QString unreadText(const Result& result)
    {
        if (result.cause == Cause::Refused)
            return QStringLiteral("refused when read, %1; not written").arg(result.detail);
        return result.cause == Cause::Invalid ? result.detail : QStringLiteral("not reached");
    }

    /// What has become of it, which the detail says where it is not plain.
    static QString unwrittenText(const Written& written)
    {
        const Result& result = written.result;
        if (result.cause == Cause::Refused && !written.acknowledged)
            return QStringLiteral("refused, ") + result.detail +
                   (result.detail.contains(QLatin1String("was written"))
                        ? QString()
                        : QStringLiteral("; not written"));
        const bool isTold = result.wasSent || result.cause == Cause::Invalid;
        return isTold ? result.detail : QStringLiteral("not reached");
    }

    const Session& m_session;
    const QVector<Job>& m_jobs;
    const bool m_verify;
    QVector<State> m_states;
};

/// diff and apply: what they do with the jobs of a file.
int runWithJobs(CommandLine& line,
                const std::function<ExitStatus(const Session&, const QVector<Job>&)>& body)
{
    QString error;
    QVector<Job> jobs;
    if (!loadJobs(line, &jobs, &error))
        return usageErrors(error);
    return runStarted(line, [&](const Session& session) { return body(session, jobs); });
}

int runDiff(CommandLine& line)
{
    return runWithJobs(line, diff);
}

int runApply(CommandLine& line)
{
    const bool verify = line.options().isSet(QStringLiteral("verify"));
    return runWithJobs(line, [verify](const Session& session, const QVector<Job>& jobs) {
        return Apply(session, jobs, verify).run();
    });
}

} // namespace

Command saveCommand()
{
    return {"save",
            "[VARIABLE...]",
            "read a set of values into a file",
            "Reads the tags of --tags, or the variables named, and writes a file of values\n"
            "that diff and apply take: CSV, with all that is needed to write each value\n"
            "again. Nothing is written unless everything could be read.",
            TakesHere | TakesTags | TakesVariables,
            {{QStringLiteral("output"),
              QStringLiteral("Put the values into this file, all of them or, if anything fails, "
                             "none: what it held before stays. Otherwise standard output."),
              QStringLiteral("file")}},
            runSave};
}

Command diffCommand()
{
    return {"diff",
            "values.csv",
            "compare controllers with a set of values",
            "Reads what a file of values names and prints each value that differs: what was\n"
            "saved and what it is now. Exit status 1 if any differs.",
            TakesHere,
            {},
            runDiff};
}

Command applyCommand()
{
    return {"apply",
            "values.csv",
            "write a set of values",
            "Writes those values of a file that differ from what the controllers hold, and\n"
            "says of each line what has become of it. Nothing is written if any line of the\n"
            "file is wrong or any of its variables cannot be read.",
            TakesHere,
            {{QStringLiteral("verify"),
              QStringLiteral("Read each value back; exit status 0 only if all are as saved.")}},
            runApply};
}

} // namespace s7200::panel
