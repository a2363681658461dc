#include "panel/commands.h"
#include "panel/output_file.h"
#include "panel/record_writer.h"
#include "panel/requests.h"

#include <QDateTime>

namespace s7200::panel
{

namespace
{

ExitStatus readAndPrint(const Session& session, const QVector<Item>& items, RecordFormat format)
{
    const QVector<Result> results = readItems(session, items);
    const RecordWriter writer(format);
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    OutputFile output;
    FailureReport report(session);
    for (int i = 0; i < int(items.size()); ++i) {
        const QString controller =
            session.recordName(items.at(i).controller, items.at(i).tag.variable.station);
        // For people the message below says it all; programs want a record of each variable.
        if (results.at(i) || format != RecordFormat::Text)
            output.write(writer.header(),
                         writer.record(items.at(i), controller, valueOf(results.at(i)), now));
        report.add(items.at(i), results.at(i));
    }
    return report.finish();
}

int runRead(CommandLine& line)
{
    QString error;
    QVector<Item> items;
    const std::optional<RecordFormat> format = recordFormatOf(line, &error);
    if (!format)
        return usageError(error);
    if (line.operands().isEmpty())
        return usageError(QStringLiteral("name at least one variable, as in VW100"));
    if (!line.resolve(line.operands(), &items, &error))
        return usageErrors(error);
    return runStarted(
        line, [&](const Session& session) { return readAndPrint(session, items, *format); });
}

} // namespace

Command readCommand()
{
    return {"read",
            "VARIABLE...",
            "read variables once",
            "Reads each variable once and prints it, in the order of the arguments.",
            TakesControllers | TakesTags | TakesVariables | SimulatesIfNone,
            {formatOption()},
            runRead};
}

} // namespace s7200::panel
