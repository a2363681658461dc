#ifndef PANEL_COMMAND_LINE_H
#define PANEL_COMMAND_LINE_H

#include <s7200host/controller.h>
#include <s7200host/variable.h>

#include <QCommandLineParser>
#include <QString>
#include <QStringList>
#include <QVector>

#include <memory>

namespace s7200
{
struct Tag;
}

namespace s7200::panel
{

/// What the program's exit status says.
enum ExitStatus {
    ExitGood = 0,
    ExitUsage = 2, ///< Also a file that cannot be opened; nothing was sent.
    ExitNoConnection = 3,
    ExitNoAnswer = 4,
    ExitRefused = 5,    ///< Refused by the controller, an invalid reply, or not verified.
    ExitSomeFailed = 6, ///< Some of several, not all.
    ExitOutput = 7,     ///< Output cannot be written.
    ExitNotMet = 8,     ///< Time was up before the condition of --until was met.
};

/// The exit status that a cause alone gives.
ExitStatus exitStatusOf(Cause cause);

/// The exit status after several requests, `causes` having one entry for each, Cause::None for the
/// good ones: that of the first when all have failed.
ExitStatus exitStatusOf(const QVector<Cause>& causes);

/// What common options a command takes; or-ed.
enum Takes : unsigned {
    TakesControllers = 1, ///< --controller, --controllers, TSAPs, --timeout, ..., --trace, --force
    TakesTags = 2,        ///< --tags
    TakesVariables = 4,   ///< Its --help explains how variables are written.
    SimulatesIfNone = 8,  ///< Without a controller it uses the simulated one, and says so.
    NeedsController = 16, ///< Without a controller it is a usage error.
};

class CommandLine;

/// A command of the program. Each one's file defines one, named in commands.h.
struct Command {
    const char* name;
    const char* operands;              ///< As in the usage line: "VARIABLE...".
    const char* summary;               ///< At most 50 letters, for the list of commands.
    const char* description;           ///< For its --help; lines of at most 79 letters.
    unsigned takes;                    ///< Takes.
    QList<QCommandLineOption> options; ///< Its own, beside the common ones.
    /// Gives the exit status. An error in its own options: return usageError(...).
    int (*run)(CommandLine& line);
};

/// A variable of a controller, as an operand named it.
struct Item {
    int controller = 0;             ///< Index in CommandLine::controllers().
    Variable variable;              ///< As the Controller takes it; its station is -1 as a rule.
    QString label;                  ///< For people: the tag's name, or "VW100@3".
    std::shared_ptr<const Tag> tag; ///< Null: named by address.
};

/// A command's arguments, read; the files they name, too.
class CommandLine
{
public:
    /// Reads the common options. False with an `error` of one line (or more: each bad line of a
    /// file), or, if it is empty, with the `help` asked for.
    bool parse(const Command& command, const QStringList& arguments, QString* help, QString* error);

    /// For the command's own options.
    const QCommandLineParser& options() const;
    QStringList operands() const;

    /// A whole number; `value` is left alone if the option is not given.
    bool number(const char* option, int lowest, int highest, int* value, QString* error) const;
    /// Seconds, with a fraction; `milliseconds` is left alone if the option is not given.
    bool seconds(const char* option, int* milliseconds, QString* error) const;

    /// One for each controller, its trace not yet set. With `simulated()` the endpoints are empty;
    /// there is one for each that the resolved items name.
    const QVector<ControllerSettings>& controllers() const;
    bool simulated() const;
    QString traceFile() const; ///< Empty: none; "-": standard error.
    bool force() const;        ///< Existing files may be overwritten.

    /// What operands name: tags by name or by a glob ("press1.*"), variables by address
    /// ("VW100x4@3/hex", "VW100@press1"). Appends to `items`.
    bool resolve(const QStringList& texts, QVector<Item>* items, QString* error);

    /// "VW100=7" or "press1.speed=21.5": one item and its elements' bits. False with a one-line
    /// `error` also for what cannot be written.
    bool resolveAssignment(const QString& text, Item* item, QVector<quint32>* values,
                           QString* error);

    /// All tags of --tags, in the file's order.
    bool resolveAllTags(QVector<Item>* items, QString* error);
};

/// A line on standard error, after the program's name.
void complain(const QString& text);

/// complain(), and ExitUsage.
int usageError(const QString& text);

/// A line on standard output. If it cannot be written, the event loop ends with ExitOutput, and so
/// does the program, main() saying why.
void print(const QString& line);
bool outputFailed();

/// What happened, with the controller's name: "no connection to press1 (10.0.0.5:102): ...".
QString describeFailure(Cause cause, const QString& detail, const QString& controller);

} // namespace s7200::panel

#endif
