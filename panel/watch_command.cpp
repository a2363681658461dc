#include "panel/commands.h"
#include "panel/requests.h"
#include "panel/watch_run.h"

#include <limits>

namespace s7200::panel
{

namespace
{

const char* const Description =
    "Reads the variables cyclically and shows them: on a terminal as a screen (arrow\n"
    "keys, PgUp, PgDn, space, Home and End scroll; q leaves), otherwise as lines.\n"
    "Values that are not current are shown as '?'.\n"
    "While it runs it takes writes from the keyboard, VARIABLE=VALUE and Enter, and q\n"
    "or quit. Ends by Ctrl-C, --count, --duration or --until.";

QList<QCommandLineOption> watchOptions()
{
    return {
        {"count",
         "End after this many rounds. One is over when all that can be read was read, or after "
         "two of the longest interval, a second at least.",
         "n"},
        {"duration", "End after this many seconds.", "s"},
        {"until",
         "End when this is so, as in 'VW100>50' (< <= > >= == !=; a good value, scaled). Given "
         "several times, all must be so at once. Status 8 if something else ends it before, the "
         "link's if nothing could be read.",
         "condition"},
        {"wait", "Wait for controllers that cannot be reached at the start."},
        formatOption(),
        {"changes", "Record only changes beyond the dead band (text always does)."},
        {"heartbeat", "Record a value again after this many seconds, changed or not.", "s"},
        {"writes", "Take the lines of standard input as writes also if it is no terminal."},
        {"read-only", "Write nothing, whatever is typed."},
        {"output", "Append records to this file. SIGHUP reopens it; it may be cut at any time.",
         "file"},
    };
}

bool readOptions(CommandLine& line, WatchOptions* options, QString* error)
{
    const QCommandLineParser& given = line.options();
    const std::optional<RecordFormat> format = recordFormatOf(line, error);
    if (!format ||
        !line.number("count", 1, std::numeric_limits<int>::max(), &options->count, error) ||
        !line.seconds("duration", &options->durationMs, error) ||
        !line.seconds("heartbeat", &options->heartbeatMs, error))
        return false;
    options->format = *format;
    options->writes = given.isSet(QStringLiteral("writes"));
    options->readOnly = given.isSet(QStringLiteral("read-only"));
    if (options->writes && options->readOnly) {
        *error = QStringLiteral("--read-only forbids what --writes asks for; leave one out");
        return false;
    }
    options->waits = given.isSet(QStringLiteral("wait"));
    options->changes = *format == RecordFormat::Text || given.isSet(QStringLiteral("changes"));
    options->outputFile = given.value(QStringLiteral("output"));
    options->records = given.isSet(QStringLiteral("format")) && options->outputFile.isEmpty();
    for (const QString& text : given.values(QStringLiteral("until"))) {
        Condition condition;
        if (!Condition::parse(text, &line, &condition, error))
            return false;
        options->conditions.append(condition);
    }
    return true;
}

/// What is watched: the operands, and what conditions compare.
bool findItems(CommandLine& line, const WatchOptions& options, QVector<Item>* items, QString* error)
{
    if (!line.resolve(line.operands(), items, error))
        return false;
    for (const Condition& condition : options.conditions) {
        if (rowOf(condition.item, *items) < 0)
            items->append(condition.item);
    }
    if (items->isEmpty() && !line.resolveAllTags(items, error))
        return false;
    if (items->isEmpty())
        *error = QStringLiteral("name at least one variable, as in VW100");
    return error->isEmpty();
}

int runWatch(CommandLine& line)
{
    WatchOptions options;
    QVector<Item> items;
    QString error;
    if (!readOptions(line, &options, &error) || !findItems(line, options, &items, &error))
        return usageErrors(error);
    return WatchRun(line, options, items).run();
}

} // namespace

Command watchCommand()
{
    return {"watch",
            "VARIABLE...",
            "show variables, over and over",
            Description,
            TakesControllers | TakesTags | TakesVariables | TakesInterval | SimulatesIfNone,
            watchOptions(),
            runWatch};
}

} // namespace s7200::panel
