#include "panel/options.h"

#include <QCommandLineParser>

#include <algorithm>
#include <limits>

namespace
{

constexpr int DefaultPort = 102;
constexpr int HighestStation = 255;
constexpr int LongestMs = 24 * 60 * 60 * 1000; // twice that is still an int

struct Command {
    const char* name;
    const char* what;
    const char* operand;
    const char* description;
};

constexpr Command Commands[] = {
    {"watch", "show variables, over and over", "VARIABLE...",
     "Reads the variables cyclically and shows them: in place on a terminal, else one line a\n"
     "change. Values that are not current are shown as '?'. A timer or counter bit shown as\n"
     "'1 latched' has been 1 since the panel started; the driver never clears it. While it runs\n"
     "it takes writes from standard input, VARIABLE=VALUE a line. Ends by Ctrl-C, --count or\n"
     "--duration."},
    {"read", "read variables once", "VARIABLE...", "Reads each variable once and prints it."},
    {"write", "write variables", "VARIABLE=VALUE...",
     "Writes each variable and waits until the controller has acknowledged it. Values are "
     "decimal,\n"
     "signed, 0x hexadecimal, 0b binary, true or false for bits, REAL (21.5) for double words;\n"
     "one for each element, separated by commas: VW100x3=1,2,3. A whole number written to VD4 is\n"
     "an integer, written to VD4/float a REAL. Inputs and timer and counter bits cannot be\n"
     "written."},
};

const Command& commandNamed(const QString& name)
{
    return *std::find_if(std::begin(Commands), std::end(Commands) - 1,
                         [&](const Command& row) { return name == QLatin1String(row.name); });
}

void addOptions(QCommandLineParser& parser, const QString& command)
{
    parser.addOption({{"h", "help"}, "Show this help."});
    parser.addOption({"controller",
                      "Where the controller is; port 102 if not given. STATION= says which "
                      "station it is, and may then be repeated. Without this option a simulated "
                      "controller inside the program is used.",
                      "[STATION=]HOST[:PORT]"});
    parser.addOption({"remote", "Use forwarding records of remote access in place of S7 jobs."});
    parser.addOption(
        {"timeout", "How long a connection or a reply may take (default 1000).", "ms", "1000"});
    parser.addOption({"retries",
                      "Failed replies before the link counts as down (default 3); the driver does "
                      "not forget them when good ones come.",
                      "n", "3"});
    parser.addOption({"trace",
                      "Record every frame: as a capture file, or for - as hex lines on standard "
                      "error.",
                      "file"});
    parser.addOption({"library", "The driver library to load.", "file"});
    if (command == QLatin1String("watch")) {
        parser.addOption({"interval",
                          "From one reading of all variables to the next (default 500).", "ms",
                          "500"});
        parser.addOption({"count",
                          "End after this many refreshes. There is one after each reading of all "
                          "variables, and at least one a second, or one in two intervals, while "
                          "that cannot be done.",
                          "n"});
        parser.addOption({"duration", "End after this many seconds.", "s"});
    }
    if (command == QLatin1String("write"))
        parser.addOption({"verify", "Read each variable back, print it, and compare."});
}

QString helpText(const Command& command, QCommandLineParser& parser)
{
    // Qt's text begins with its own usage line, which does not know of commands.
    const QString options = parser.helpText();
    return QStringLiteral("Usage: s7200-panel %1 [options] %2\n\n%3\n\n%4\n%5\n"
                          "Exit status: 0 good, 2 wrong usage, 3 no connection, 4 no answer,\n"
                          "5 refused or invalid reply, 6 some of several variables failed.\n")
        .arg(QLatin1String(command.name), QLatin1String(command.operand),
             QLatin1String(command.description), variableHelp(),
             options.mid(options.indexOf(QLatin1String("Options:"))));
}

bool parseNumber(const QCommandLineParser& parser, const char* option, int lowest, int highest,
                 int* value, QString* error)
{
    const QString name = QLatin1String(option);
    if (!parser.isSet(name) && parser.value(name).isEmpty())
        return true;
    bool ok = false;
    *value = parser.value(name).toInt(&ok);
    if (ok && *value >= lowest && *value <= highest)
        return true;
    *error = QStringLiteral("--%1 takes a whole number from %2 to %3, not '%4'")
                 .arg(name)
                 .arg(lowest)
                 .arg(highest)
                 .arg(parser.value(name).simplified());
    return false;
}

bool parseDuration(const QCommandLineParser& parser, int* milliseconds, QString* error)
{
    const QString name = QStringLiteral("duration");
    if (!parser.isSet(name))
        return true;
    bool ok = false;
    const double seconds = parser.value(name).toDouble(&ok);
    if (!ok || !(seconds >= 0.001) || seconds > LongestMs / 1000) {
        *error = QStringLiteral("--duration takes seconds, 0.001 to %1, not '%2'")
                     .arg(LongestMs / 1000)
                     .arg(parser.value(name).simplified());
        return false;
    }
    *milliseconds = int(seconds * 1000);
    return true;
}

/// HOST, HOST:PORT, and [ADDRESS]:PORT for an address with colons of its own.
bool parseEndpoint(const QString& text, Endpoint* endpoint)
{
    QString port;
    const auto bracket = text.indexOf(QLatin1Char(']'));
    if (text.startsWith(QLatin1Char('[')) && bracket > 0) {
        endpoint->host = text.mid(1, bracket - 1);
        port = text.mid(bracket + 1);
    } else if (text.count(QLatin1Char(':')) <= 1) {
        endpoint->host = text.section(QLatin1Char(':'), 0, 0);
        port = text.mid(endpoint->host.size());
    } else {
        endpoint->host = text;
    }
    endpoint->port = DefaultPort;
    if (!port.isEmpty()) {
        bool ok = false;
        endpoint->port = port.mid(1).toUShort(&ok);
        if (!ok || endpoint->port == 0 || !port.startsWith(QLatin1Char(':')))
            return false;
    }
    return !endpoint->host.isEmpty() && !endpoint->host.contains(QLatin1Char(' '));
}

bool parseController(const QString& text, LoopSettings* loop, QString* error)
{
    int station = loop->defaultStation;
    QString address = text;
    const auto equals = text.indexOf(QLatin1Char('='));
    if (equals >= 0) {
        bool ok = false;
        station = text.left(equals).toInt(&ok);
        if (!ok || station < 0 || station > HighestStation)
            station = -1;
        address = text.mid(equals + 1);
        loop->stationEach = true;
    }
    Endpoint endpoint;
    if (station < 0 || !parseEndpoint(address, &endpoint))
        *error = QStringLiteral("--controller takes [STATION=]HOST[:PORT], with a station of 0 to "
                                "255, not '%1'")
                     .arg(text.simplified());
    else if (loop->controllers.contains(station))
        *error = QStringLiteral("--controller is given twice for station %1").arg(station);
    else
        loop->controllers.insert(station, endpoint);
    return error->isEmpty();
}

bool parseOperands(const QString& command, const QStringList& operands, PanelOptions* options,
                   QString* error)
{
    for (const QString& operand : operands) {
        Assignment assignment;
        const bool ok =
            command == QLatin1String("write")
                ? parseAssignment(operand, &assignment.variable, &assignment.values, error)
                : parseVariable(operand, &assignment.variable, error);
        if (!ok)
            return false;
        if (command == QLatin1String("write"))
            options->assignments.append(assignment);
        options->variables.append(assignment.variable);
    }
    if (operands.isEmpty())
        *error = QStringLiteral("name at least one variable, as in %1")
                     .arg(command == QLatin1String("write") ? QStringLiteral("VW100=7")
                                                            : QStringLiteral("VW100"));
    return error->isEmpty();
}

/// What a variable needs of the stations, once all of them are known.
QString stationObjection(const Variable& variable, const LoopSettings& loop)
{
    const QString label = variable.label();
    if (loop.stationEach && variable.isLatched())
        return QStringLiteral("%1: the driver cannot read timer and counter bits of stations given "
                              "by @; read the value, as in %2V%3")
            .arg(label, QLatin1String(variable.area->name))
            .arg(variable.address);
    const int station = variable.station < 0 ? loop.defaultStation : variable.station;
    if (loop.controllers.contains(station))
        return QString();
    return variable.station < 0
               ? QStringLiteral("%1: no @STATION, and no --controller without STATION=").arg(label)
               : QStringLiteral("%1: no --controller %2=HOST for its station")
                     .arg(label)
                     .arg(station);
}

bool settleStations(PanelOptions* options, QString* error)
{
    LoopSettings& loop = options->loop;
    for (const Variable& variable : options->variables)
        loop.stationEach = loop.stationEach || variable.station >= 0;
    options->embedded = loop.controllers.isEmpty();
    for (const Variable& variable : options->variables) {
        if (options->embedded)
            loop.controllers.insert(variable.station < 0 ? loop.defaultStation : variable.station,
                                    Endpoint());
    }
    for (const Variable& variable : options->variables) {
        *error = stationObjection(variable, loop);
        if (!error->isEmpty())
            return false;
    }
    for (const Assignment& assignment : options->assignments) {
        *error = writeObjection(assignment, loop);
        if (!error->isEmpty())
            return false;
    }
    return true;
}

bool readSettings(const QCommandLineParser& parser, PanelOptions* options, QString* error)
{
    LoopSettings& loop = options->loop;
    options->library = parser.value(QStringLiteral("library"));
    options->traceFile = parser.value(QStringLiteral("trace"));
    loop.remote = parser.isSet(QStringLiteral("remote"));
    for (const QString& text : parser.values(QStringLiteral("controller"))) {
        if (!parseController(text, &loop, error))
            return false;
    }
    return parseNumber(parser, "timeout", 1, LongestMs, &loop.timeoutMs, error) &&
           parseNumber(parser, "retries", 0, 1000, &loop.retries, error);
}

bool readWatchSettings(const QCommandLineParser& parser, PanelOptions* options, QString* error)
{
    return parseNumber(parser, "interval", 0, LongestMs, &options->loop.intervalMs, error) &&
           parseNumber(parser, "count", 1, std::numeric_limits<int>::max(), &options->count,
                       error) &&
           parseDuration(parser, &options->durationMs, error);
}

} // namespace

ExitStatus exitStatusOf(Fault fault)
{
    switch (fault) {
    case Fault::None:
        return ExitGood;
    case Fault::NoConnection:
        return ExitNoConnection;
    case Fault::NoAnswer:
    case Fault::Stopped:
        return ExitNoAnswer;
    default:
        return ExitRefused;
    }
}

ExitStatus exitStatusOf(const QVector<Fault>& faults)
{
    ExitStatus first = ExitGood;
    for (auto it = faults.rbegin(); it != faults.rend(); ++it) {
        if (*it != Fault::None)
            first = exitStatusOf(*it);
    }
    return first != ExitGood && faults.contains(Fault::None) ? ExitSomeFailed : first;
}

bool parseOptions(const QString& command, const QStringList& arguments, PanelOptions* options,
                  QString* help, QString* error)
{
    error->clear();
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    addOptions(parser, command);
    const bool parsed = parser.parse(arguments);
    if (parser.isSet(QStringLiteral("help"))) {
        *help = helpText(commandNamed(command), parser);
        return false;
    }
    if (!parsed) {
        *error = parser.errorText().simplified() + QStringLiteral(" --help lists the options.");
        return false;
    }
    if (!readSettings(parser, options, error) ||
        !parseOperands(command, parser.positionalArguments(), options, error) ||
        !settleStations(options, error))
        return false;
    options->verify = command == QLatin1String("write") && parser.isSet(QStringLiteral("verify"));
    if (command == QLatin1String("watch")) {
        options->loop.blockLimit = blockLimitFor(options->variables);
        return readWatchSettings(parser, options, error);
    }
    return true;
}

QString writeObjection(const Assignment& assignment, const LoopSettings& settings)
{
    return stationObjection(assignment.variable, settings);
}
