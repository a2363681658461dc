#include "panel/command_line.h"

#include "host/endpoint_text.h"

#include <s7200host/controller_file.h>

#include <algorithm>

namespace s7200::panel
{

namespace
{

constexpr int HighestStation = 255;
constexpr int LongestMs = 24 * 60 * 60 * 1000; // three times that is still an int
constexpr qint64 MostSeconds = qint64(10) * 366 * 24 * 60 * 60;
constexpr int LargestBlock = 222; // what a reply of 240 bytes has room for

const char* const ExitStatuses =
    "Exit status: 0 good, 1 differences found (diff, replay), 2 wrong usage, 3 no\n"
    "connection, 4 no answer, 5 refused, invalid or not verified, 6 some of several\n"
    "failed, 7 output cannot be written, 8 time was up before --until was met.\n";

const char* const TagHelp =
    "With --tags a VARIABLE may also be a tag's name or a pattern ('press1.*').\n"
    "With several controllers it may begin with one's name: press1:VW100.\n\n";

QList<QCommandLineOption> controllerOptions()
{
    return {
        {"controller",
         "Where the controller is; port 102 if not given. NAME= gives it a name, or a station "
         "number for variables with @STATION; then the option may be repeated.",
         "[NAME=]HOST[:PORT]"},
        {"controllers",
         "A file of controllers, CSV: name, host, port, local_tsap, remote_tsap, timeout, "
         "retries, interval. What it leaves empty is taken from the options.",
         "file"},
        {"local-tsap", "This side's transport access point, two hex bytes (default 10.00).",
         "tsap"},
        {"remote-tsap", "The controller's, kind and place of the module (default 11.00).", "tsap"},
        {"timeout", "How long a connection or a reply may take (default 1000).", "ms"},
        {"retries", "Failed replies before the link counts as down (default 3).", "n"},
        {"block-limit",
         "Most bytes, timers or counters of one read (by itself what fits the PDU granted).",
         "bytes"},
        {"remote", "Use forwarding records of remote access in place of S7 jobs."},
        {"one-driver",
         "All stations behind one driver, in turn. A dead one then costs the others time."},
        {"trace", "Record every frame: as a capture file, or for - as hex lines on standard error.",
         "file"},
        {"force", "Overwrite a file that exists."},
    };
}

QList<QCommandLineOption> commonOptions(unsigned takes)
{
    QList<QCommandLineOption> options;
    if ((takes & TakesControllers) != 0)
        options += controllerOptions();
    if ((takes & TakesTags) != 0)
        options.append({"tags",
                        "A file of tags, CSV: name, controller, address, format, unit, scale, "
                        "offset, decimals, deadband, low, high, comment.",
                        "file"});
    if ((takes & TakesInterval) != 0)
        options.append({"interval", "From one reading to the next (default 500).", "ms"});
    if ((takes & (TakesControllers | TakesDriver)) != 0)
        options.append({"driver", "The driver library to load.", "file"});
    options.append({{"h", "help"}, "Show this help."});
    return options;
}

QString helpText(const Command& command, const QCommandLineParser& parser)
{
    // Qt's text begins with a usage line of its own, which does not know of commands.
    QString options = parser.helpText();
    options.remove(0, options.indexOf(QLatin1String("Options:")));
    options.truncate(options.indexOf(QLatin1String("\nArguments:")) >= 0
                         ? options.indexOf(QLatin1String("\nArguments:"))
                         : options.size());
    QString variables;
    if ((command.takes & TakesVariables) != 0)
        variables = variableHelp() + QLatin1Char('\n');
    if ((command.takes & TakesTags) != 0 && !variables.isEmpty())
        variables += QLatin1String(TagHelp);
    const QString usage = QStringLiteral("Usage: s7200-panel %1 [options] %2")
                              .arg(QLatin1String(command.name), QLatin1String(command.operands));
    return QStringLiteral("%1\n\n%2\n\n%3%4\n%5")
        .arg(usage.trimmed(), QString::fromUtf8(command.description), variables, options,
             QLatin1String(ExitStatuses));
}

/// The name of an option as it is given: "--verify", "-verify", "--format=csv"; empty: it is none.
QString optionName(const QString& argument)
{
    const int dashes = argument.startsWith(QLatin1String("--")) ? 2 : 1;
    return argument.startsWith(QLatin1Char('-'))
               ? argument.mid(dashes).section(QLatin1Char('='), 0, 0)
               : QString();
}

/// What is wrong if an option without its value takes the next one for it, as it does where a
/// shell's variable is empty: --controller $HOST --verify.
QString swallowedOption(const QList<QCommandLineOption>& options, const QStringList& arguments)
{
    QHash<QString, bool> takesValue; // by name
    for (const QCommandLineOption& option : options) {
        for (const QString& name : option.names())
            takesValue.insert(name, !option.valueName().isEmpty());
    }
    for (int i = 1; i + 1 < int(arguments.size()) && arguments.at(i) != QLatin1String("--"); ++i) {
        const QString name = optionName(arguments.at(i));
        if (!takesValue.value(name) || arguments.at(i).contains(QLatin1Char('=')))
            continue;
        const QString value = arguments.at(++i);
        if (takesValue.contains(optionName(value)))
            return QStringLiteral("--%1 needs a value, and the option %2 follows it")
                .arg(name, quoted(value));
    }
    return QString();
}

/// The station that a controller's name says, -1 if it is no number of one.
int stationNamed(const QString& name)
{
    bool ok = false;
    const int station = name.toInt(&ok);
    return ok && station >= 0 && station <= HighestStation ? station : -1;
}

} // namespace

bool parseEndpoint(const QString& text, Endpoint* endpoint)
{
    QString host = text;
    QString port;
    const auto bracket = text.indexOf(QLatin1Char(']'));
    if (text.startsWith(QLatin1Char('[')) && bracket > 0) {
        host = text.mid(1, bracket - 1);
        port = text.mid(bracket + 1);
    } else if (text.count(QLatin1Char(':')) == 1) {
        host = text.section(QLatin1Char(':'), 0, 0);
        port = text.mid(host.size());
    }
    endpoint->host = host;
    if (!port.isEmpty()) {
        bool ok = false;
        endpoint->port = port.mid(1).toUShort(&ok);
        if (!ok || endpoint->port == 0 || !port.startsWith(QLatin1Char(':')))
            return false;
    }
    return isHost(host);
}

bool CommandLine::parse(const Command& command, const QStringList& arguments, QString* help,
                        QString* error)
{
    error->clear();
    m_takes = command.takes;
    m_parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QList<QCommandLineOption> options = command.options + commonOptions(command.takes);
    m_parser.addOptions(options);
    const bool parsed = m_parser.parse(arguments);
    if (m_parser.isSet(QStringLiteral("help"))) {
        *help = helpText(command, m_parser);
        return false;
    }
    if (!parsed) {
        *error = m_parser.errorText().simplified() + QStringLiteral(" --help lists the options.");
        return false;
    }
    *error = swallowedOption(options, arguments);
    if (!error->isEmpty())
        return false;
    if ((m_takes & TakesInterval) != 0 &&
        !number("interval", 0, LongestMs, &m_defaults.intervalMs, error))
        return false;
    if ((m_takes & TakesControllers) != 0 &&
        (!readSettings(&m_defaults, error) || !readControllers(m_defaults, error)))
        return false;
    if ((m_takes & NeedsController) != 0 && m_controllers.isEmpty()) {
        *error = QStringLiteral("%1 needs a controller: --controller HOST[:PORT]")
                     .arg(QLatin1String(command.name));
        return false;
    }
    return readTags(error);
}

const QCommandLineParser& CommandLine::options() const
{
    return m_parser;
}

QStringList CommandLine::operands() const
{
    return m_parser.positionalArguments();
}

bool CommandLine::number(const char* option, int lowest, int highest, int* value,
                         QString* error) const
{
    const QString name = QLatin1String(option);
    if (!m_parser.isSet(name))
        return true;
    bool ok = false;
    const int given = m_parser.value(name).toInt(&ok);
    if (ok && given >= lowest && given <= highest) {
        *value = given;
        return true;
    }
    *error = QStringLiteral("--%1 takes a whole number from %2 to %3, not %4")
                 .arg(name)
                 .arg(lowest)
                 .arg(highest)
                 .arg(quoted(m_parser.value(name)));
    return false;
}

bool CommandLine::seconds(const char* option, qint64* milliseconds, QString* error) const
{
    const QString name = QLatin1String(option);
    if (!m_parser.isSet(name))
        return true;
    bool ok = false;
    const double given = m_parser.value(name).toDouble(&ok);
    if (ok && given >= 0.001 && given <= double(MostSeconds)) {
        *milliseconds = qint64(given * 1000);
        return true;
    }
    *error = QStringLiteral("--%1 takes seconds, 0.001 to %2, not %3")
                 .arg(name)
                 .arg(MostSeconds)
                 .arg(quoted(m_parser.value(name)));
    return false;
}

bool CommandLine::readTsap(const char* option, quint16* tsap, QString* error) const
{
    const QString name = QLatin1String(option);
    if (!m_parser.isSet(name))
        return true;
    const std::optional<quint16> given = parseTsap(m_parser.value(name));
    if (given && *given != 0) {
        *tsap = *given;
        return true;
    }
    *error =
        QStringLiteral("--%1 takes two hexadecimal bytes, 10.00 or 1000, not both 0, and not %2")
            .arg(name, quoted(m_parser.value(name)));
    return false;
}

bool CommandLine::readSettings(ControllerSettings* settings, QString* error) const
{
    settings->remoteAccess = m_parser.isSet(QStringLiteral("remote"));
    settings->driverFile = driverFile();
    return readTsap("local-tsap", &settings->localTsap, error) &&
           readTsap("remote-tsap", &settings->remoteTsap, error) &&
           number("timeout", 1, LongestMs, &settings->timeoutMs, error) &&
           number("retries", 0, 1000, &settings->retries, error) &&
           number("block-limit", 1, LargestBlock, &settings->blockLimit, error);
}

bool CommandLine::addController(const QString& text, const ControllerSettings& defaults,
                                QString* error)
{
    ControllerSettings settings = defaults;
    const auto equals = text.indexOf(QLatin1Char('='));
    if (equals >= 0) {
        settings.name = text.left(equals).trimmed();
        *error = faultOfName(settings.name);
    }
    if (error->isEmpty() && !parseEndpoint(text.mid(equals + 1).trimmed(), &settings.endpoint))
        *error = QStringLiteral("HOST is a name or an address (IPv6 with a port in brackets), "
                                "PORT 1 to 65535");
    if (!error->isEmpty())
        *error = QStringLiteral("--controller takes [NAME=]HOST[:PORT], not %1; %2")
                     .arg(quoted(text), *error);
    m_controllers.append(settings);
    return error->isEmpty();
}

bool CommandLine::readControllers(const ControllerSettings& defaults, QString* error)
{
    for (const QString& text : m_parser.values(QStringLiteral("controller"))) {
        if (!addController(text, defaults, error))
            return false;
    }
    for (const QString& file : m_parser.values(QStringLiteral("controllers"))) {
        QStringList errors;
        const auto loaded = loadControllers(file, defaults, &errors);
        *error = errors.join(QLatin1Char('\n'));
        if (!loaded)
            return false;
        m_controllers += *loaded;
    }
    if (!indexControllers(error))
        return false;
    return !oneDriver() || joinStations(error);
}

bool CommandLine::indexControllers(QString* error)
{
    for (int i = 0; i < int(m_controllers.size()); ++i) {
        const QString& name = m_controllers.at(i).name;
        if (m_byName.contains(name.toLower())) {
            *error = name.isEmpty() ? QStringLiteral("several controllers need names: --controller "
                                                     "NAME=HOST")
                                    : QStringLiteral("two controllers are named ") + quoted(name);
            return false;
        }
        m_byName.insert(name.toLower(), i);
    }
    return true;
}

/// All controllers become stations of one.
bool CommandLine::joinStations(QString* error)
{
    if (m_controllers.isEmpty())
        return true;
    ControllerSettings joined = m_controllers.first();
    for (const ControllerSettings& settings : std::as_const(m_controllers)) {
        const int station =
            settings.name.isEmpty() ? settings.defaultStation : stationNamed(settings.name);
        if (station < 0 || joined.stations.contains(station)) {
            *error = QStringLiteral("with --one-driver each controller is a station of its own, "
                                    "0 to 255: --controller 3=HOST, not %1")
                         .arg(quoted(settings.name));
            return false;
        }
        joined.stations.insert(station, settings.endpoint);
    }
    joined.name.clear();
    if (!joined.stations.contains(joined.defaultStation))
        joined.defaultStation = joined.stations.firstKey();
    m_controllers = {joined};
    return true;
}

const QVector<ControllerSettings>& CommandLine::controllers() const
{
    return m_controllers;
}

bool CommandLine::simulated() const
{
    return (m_takes & SimulatesIfNone) != 0 && !m_parser.isSet(QStringLiteral("controller")) &&
           !m_parser.isSet(QStringLiteral("controllers"));
}

bool CommandLine::oneDriver() const
{
    return (m_takes & TakesControllers) != 0 && m_parser.isSet(QStringLiteral("one-driver"));
}

QString CommandLine::driverFile() const
{
    return m_parser.value(QStringLiteral("driver"));
}

QString CommandLine::traceFile() const
{
    return m_parser.value(QStringLiteral("trace"));
}

bool CommandLine::force() const
{
    return m_parser.isSet(QStringLiteral("force"));
}

const TagTable& CommandLine::tags() const
{
    return m_tags;
}

} // namespace s7200::panel
