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
    Result result;             ///< Of the write, or, if that was good, of reading it back.
    bool written = false;      ///< The controller has acknowledged it.
    QVector<quint32> readBack; ///< If that was asked for and done.
    bool verified = false;     ///< And it is the same.
};

/// Reads all items, any number of controllers at once; one result for each, in order. Ends early,
/// with Cause::Stopped for what is open, when the program is to end.
QVector<Result> readItems(const Session& session, const QVector<Item>& items);

/// Writes all, those to one controller in order; with `verify` each is read back.
QVector<Written> writeJobs(const Session& session, const QVector<Job>& jobs, bool verify);

/// A result to be reported for a job: what is read back and differs counts as Cause::Invalid.
Result resultOf(const Job& job, const Written& written);

/// Runs the body of a command with all controllers of the line started, and gives the status that
/// counts: that of the body, an earlier one if there was a signal, ExitOutput if output could not
/// be written. The trace is looked at when the session ends.
int runStarted(const CommandLine& line, const std::function<ExitStatus(const Session&)>& body);

/// usageError() for an error of several lines.
int usageErrors(const QString& lines);

} // namespace s7200::panel

#endif
