#ifndef PANEL_REQUESTS_H
#define PANEL_REQUESTS_H

#include "panel/session.h"

#include <QEventLoop>
#include <QVector>

namespace s7200::panel
{

/// A variable and the elements that are to be written to it.
struct Job {
    Item item;
    QVector<quint32> elements;
};

/// What has become of a Job.
struct Written {
    Result result;             ///< With `verify` Cause::Invalid for a value that reads back other.
    QVector<quint32> readBack; ///< If that was asked for and done.
    bool acknowledged = false; ///< All of it, whatever the reading back has shown.
};

/// Reads all items, any number of controllers at once; one result for each, in order. Goes on
/// where a connection is closed meanwhile, as often as the controller's retries allow. Ends early,
/// with Cause::Stopped for what is open, when the program is to end. `what`: for the progress line.
QVector<Result> readItems(const Session& session, const QVector<Item>& items,
                          const char* what = "read");

/// Writes all, those to one controller in order. With `verify` all that may have been written is
/// read back then, also where no good answer has come.
QVector<Written> writeJobs(const Session& session, const QVector<Job>& jobs, bool verify);

/// A write's result, with a detail that says so if nobody knows whether it was carried out.
Result outcomeOf(const Result& result);

/// Runs the body of a command with all controllers of the line started, and gives the status that
/// counts: that of the body, an earlier one if there was a signal, ExitOutput if output could not
/// be written. The trace is looked at when the session ends.
int runStarted(const CommandLine& line, const std::function<ExitStatus(const Session&)>& body);

/// usageError() for an error of several lines.
int usageErrors(const QString& lines);

} // namespace s7200::panel

#endif
