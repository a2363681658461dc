#ifndef PANEL_COMMAND_LINE_H
#define PANEL_COMMAND_LINE_H

#include "panel/messages.h"

#include <s7200host/controller.h>
#include <s7200host/tag.h>

#include <QCommandLineParser>
#include <QHash>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVector>

namespace s7200::panel
{

/// What a command takes besides its own options and how its operands are explained; or-ed.
enum Takes : unsigned {
    TakesControllers = 1, ///< --controller, --controllers, TSAPs, --timeout, ..., --trace, --force
    TakesTags = 2,        ///< --tags
    TakesVariables = 4,   ///< Its --help explains how variables are written.
    TakesInterval = 8,    ///< --interval
    TakesDriver = 16,     ///< --driver; included in TakesControllers.
    SimulatesIfNone = 32, ///< Without a controller it uses a simulated one, and says so.
    NeedsController = 64, ///< Without a controller it is a usage error.
};

class CommandLine;

/// A command of the program.
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
    int controller = 0; ///< Index in CommandLine::controllers().
    Tag tag; ///< One without a name if an address was given. Its station is -1 unless oneDriver().
    QString label; ///< For people: with several controllers, "press1:VW100".
};

/// A command's arguments, read, and the files of tags and controllers that they name.
class CommandLine
{
public:
    /// Reads the common options. False with an `error` (a line, or one for each bad line of a
    /// file), or, if it is empty, with the `help` asked for.
    bool parse(const Command& command, const QStringList& arguments, QString* help, QString* error);

    /// For the command's own options.
    const QCommandLineParser& options() const;
    QStringList operands() const;

    /// A whole number; `value` is left alone if the option is not given.
    bool number(const char* option, int lowest, int highest, int* value, QString* error) const;
    /// Seconds, with a fraction; `milliseconds` is left alone if the option is not given.
    bool seconds(const char* option, qint64* milliseconds, QString* error) const;

    /// One for each controller, its trace not yet set. While simulated(), there is one for each
    /// that the resolved items name, without an endpoint.
    const QVector<ControllerSettings>& controllers() const;
    bool simulated() const;
    bool oneDriver() const; ///< One Controller object with several stations.
    QString driverFile() const;
    QString traceFile() const; ///< Empty: none; "-": standard error.
    bool force() const;        ///< Existing files may be overwritten.

    /// What operands name: tags by name or pattern, variables by address, each also behind
    /// CONTROLLER, which may be a pattern, and a colon. A tag of no controller is one of each that
    /// has none of its name. Appends to `items`. False with an `error` of a line for each that
    /// names nothing; of many the first ones, and a count.
    bool resolve(const QStringList& texts, QVector<Item>* items, QString* error);

    /// All tags of --tags, in the file's order.
    bool resolveAllTags(QVector<Item>* items, QString* error);

    /// Tags from elsewhere, each on one controller. False with an `error` of a line for each that
    /// is on none; of many the first ones, and a count.
    bool resolveTags(QVector<Tag> tags, QVector<Item>* items, QString* error);

    /// "VW100=7" or "press1.speed=21.5": an item and its elements' bits. False with a one-line
    /// `error`, also for what cannot be written.
    bool resolveAssignment(const QString& text, Item* item, QVector<quint32>* values,
                           QString* error);

    /// Labels of resolved items that are shown together.
    QStringList labelsOf(const QVector<Item>& items) const;

    /// True if an item was resolved that is on it: no other needs to be connected.
    bool isNamed(int controller) const;

    const TagTable& tags() const;

private:
    bool readControllers(const ControllerSettings& defaults, QString* error);
    bool addController(const QString& text, const ControllerSettings& defaults, QString* error);
    bool readSettings(ControllerSettings* settings, QString* error) const;
    bool readTsap(const char* option, quint16* tsap, QString* error) const;
    bool joinStations(QString* error);
    bool readTags(QString* error);
    bool place(const Tag& tag, Item* item, QString* error);
    bool indexControllers(QString* error);
    int controllerOf(const Tag& tag, QString* error);
    QStringList controllerNames() const;
    QString controllerNameOf(const Item& item) const;
    bool severalControllers() const;
    bool placeAtStation(const Tag& tag, int* station, QString* error) const;

    QCommandLineParser m_parser;
    unsigned m_takes = 0;
    QVector<ControllerSettings> m_controllers;
    QHash<QString, int> m_byName; ///< Indexes in m_controllers, by name in lower case.
    QSet<int> m_named;            ///< Of m_controllers, by index.
    QStringList m_simulatedNames; ///< Those that the tags name, while none is given.
    ControllerSettings m_defaults;
    TagTable m_tags;
};

/// Reads HOST, HOST:PORT or [ADDRESS]:PORT.
bool parseEndpoint(const QString& text, Endpoint* endpoint);

} // namespace s7200::panel

#endif
