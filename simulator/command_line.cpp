#include "simulator/command_line.h"

#include "simulator/controller_memory.h"
#include "simulator/fault_injector.h"
#include "wire/s7_fields.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <limits>

namespace s7200::sim
{

namespace
{

constexpr int MostControllers = 10000;
constexpr int MostSeconds = 1000000;
constexpr int MostDelayMs = 60000;
constexpr int SmallestPdu = 20; // that of the reply that grants it
constexpr int LargestPdu = 960;

struct OptionRow {
    const char* name;
    const char* value; ///< Empty: takes none.
    const char* text;  ///< Lines.
};

constexpr OptionRow Options[] = {
    {"help", "", "Show this text."},
    {"version", "", "Show the version."},
    {"listen", "ADDRESS:PORT", "Where; port 0 picks a free one. Default: 127.0.0.1:0"},
    {"count", "N", "So many controllers, on consecutive ports. Default: 1"},
    {"tsap", "XX.XX",
     "The controller's own (called) TSAP, two hexadecimal\n"
     "bytes such as 10.00; connections that call another are\n"
     "refused. Default: any will do"},
    {"pdu", "BYTES",
     "Grant a PDU of at most so many bytes, 20 to 960, and\n"
     "refuse what would not fit it, with --remote too.\n"
     "Default: 240"},
    {"latency", "MS[:JITTER]",
     "Delay each reply by MS milliseconds, and up to JITTER\nmore at random."},
    {"idle", "S",
     "Close a connection on which nothing is said for S\n"
     "seconds, before its handshake is completed after 5.\nDefault: 60"},
    {"remote", "", "Take forwarding records of remote access, not S7 jobs."},
    {"frozen", "", "No live values: only writes change memory."},
    {"fault", "KIND[:PROBABILITY|:every N|:address A]",
     "Let something go wrong, see below; may be repeated."},
    {"only", "A-B", "Faults strike controllers A to B only, counted from 1."},
    {"seed", "N", "Seed of all randomness. Default: 1"},
    {"duration", "S", "End after so many seconds."},
    {"verbose", "", "A line per request on standard error."},
    {"trace", "FILE",
     "Write all bytes to a capture file, or as hex lines to\n"
     "standard error if FILE is -."},
    {"force", "", "Let --trace replace a file that exists."},
};

QList<QCommandLineOption> options()
{
    QList<QCommandLineOption> list;
    for (const OptionRow& row : Options)
        list.append({QLatin1String(row.name), QString(), QLatin1String(row.value)});
    list.append({{QStringLiteral("h")}, QString()});
    return list;
}

QString optionsHelp()
{
    constexpr int Column = 24;
    const QString indent = QLatin1Char('\n') + QString(Column, QLatin1Char(' '));
    QString help;
    for (const OptionRow& row : Options) {
        QString start =
            QStringLiteral("  --%1 %2").arg(QLatin1String(row.name), QLatin1String(row.value));
        start = start.size() < Column ? start.leftJustified(Column) : start + indent;
        help += start + QString::fromLatin1(row.text).replace(QLatin1Char('\n'), indent) +
                QLatin1Char('\n');
    }
    return help;
}

QString notANumber(const char* option, const QString& text, int lowest, int highest)
{
    return QStringLiteral("--%1 takes a whole number from %2 to %3, not \"%4\"")
        .arg(QLatin1String(option))
        .arg(lowest)
        .arg(highest)
        .arg(text);
}

/// Reads options one by one; the first that is wrong is kept.
class Reader
{
public:
    explicit Reader(const QCommandLineParser& parser) : m_parser(parser) {}

    void number(const char* option, int lowest, int highest, int* value)
    {
        const QString text = m_parser.value(QLatin1String(option));
        if (!isSet(option))
            return;
        bool good = false;
        const int number = text.toInt(&good);
        if (good && number >= lowest && number <= highest)
            *value = number;
        else
            refuse(notANumber(option, text, lowest, highest));
    }

    /// Two numbers with a separator; the second may be left out if it has a default.
    void numbers(const char* option, QChar separator, int highest, int* first, int* second,
                 const char* right)
    {
        const QStringList parts = m_parser.value(QLatin1String(option)).split(separator);
        if (!isSet(option))
            return;
        bool good = false, alsoGood = true;
        *first = parts.first().toInt(&good);
        if (parts.size() > 1)
            *second = parts.at(1).toInt(&alsoGood);
        if (!good || !alsoGood || parts.size() > 2 || *first < 0 || *second < 0 ||
            *first > highest || *second > highest)
            refuse(QStringLiteral("--%1 takes %2, not \"%3\"")
                       .arg(QLatin1String(option), QLatin1String(right),
                            m_parser.value(QLatin1String(option))));
    }

    void refuse(const QString& problem)
    {
        if (m_problem.isEmpty())
            m_problem = problem;
    }

    bool isSet(const char* option) const
    {
        return m_parser.isSet(QLatin1String(option));
    }

    QString text(const char* option) const
    {
        return m_parser.value(QLatin1String(option));
    }

    QString problem() const
    {
        return m_problem;
    }

private:
    const QCommandLineParser& m_parser;
    QString m_problem;
};

bool parseListen(const QString& text, SimulatorOptions* simulator)
{
    const int colon = int(text.lastIndexOf(QLatin1Char(':')));
    bool good = false;
    const uint port = text.mid(colon + 1).toUInt(&good);
    QString address = text.left(colon);
    if (address.startsWith(QLatin1Char('[')) && address.endsWith(QLatin1Char(']')))
        address = address.mid(1, address.size() - 2);
    simulator->address = address;
    simulator->port = quint16(port);
    return good && colon > 0 && port <= 0xFFFF;
}

void readControllers(Reader& reader, SimulatorOptions* simulator)
{
    if (reader.isSet("listen") && !parseListen(reader.text("listen"), simulator))
        reader.refuse(QStringLiteral("--listen takes ADDRESS:PORT, such as 127.0.0.1:1102, "
                                     "not \"%1\"")
                          .arg(reader.text("listen")));
    reader.number("count", 1, MostControllers, &simulator->count);
    if (simulator->port != 0 && simulator->port + simulator->count > 0x10000)
        reader.refuse(QStringLiteral("--count %1: with the first on port %2 there are ports for "
                                     "%3 controllers")
                          .arg(simulator->count)
                          .arg(simulator->port)
                          .arg(0x10000 - simulator->port));
    reader.number("pdu", SmallestPdu, LargestPdu, &simulator->largestPdu);
    if (reader.isSet("tsap"))
        simulator->tsap = wire::parseTsap(reader.text("tsap"));
    if (reader.isSet("tsap") && !simulator->tsap)
        reader.refuse(QStringLiteral("--tsap takes two hexadecimal bytes, such as 10.00 or "
                                     "1000, not \"%1\"")
                          .arg(reader.text("tsap")));
}

void readBehaviour(Reader& reader, SimulatorOptions* simulator)
{
    reader.numbers("latency", QLatin1Char(':'), MostDelayMs, &simulator->latencyMs,
                   &simulator->jitterMs, "MS or MS:JITTER in milliseconds, such as 20 or 20:5");
    int idleSeconds = simulator->idleMs / 1000;
    reader.number("idle", 1, MostSeconds, &idleSeconds);
    simulator->idleMs = idleSeconds * 1000;
    if (reader.isSet("only")) {
        simulator->lastFaulty = 0;
        reader.numbers("only", QLatin1Char('-'), MostControllers, &simulator->firstFaulty,
                       &simulator->lastFaulty, "A-B, such as 1-300");
        if (simulator->firstFaulty < 1 || simulator->lastFaulty < simulator->firstFaulty ||
            simulator->lastFaulty > simulator->count)
            reader.refuse(
                QStringLiteral("--only takes A-B within 1 to %1, the controllers of --count, "
                               "not \"%2\"")
                    .arg(simulator->count)
                    .arg(reader.text("only")));
    }
    bool good = true;
    if (reader.isSet("seed"))
        simulator->seed = reader.text("seed").toUInt(&good);
    if (!good)
        reader.refuse(QStringLiteral("--seed takes a whole number from 0 to 4294967295, not \"%1\"")
                          .arg(reader.text("seed")));
    QString faultProblem;
    if (!FaultInjector(0).setFaults(simulator->faults, &faultProblem))
        reader.refuse(faultProblem);
}

} // namespace

QString readCommandLine(QCommandLineParser& parser, CommandLine* commandLine)
{
    parser.addOptions(options());
    if (!parser.parse(QCoreApplication::arguments()) || !parser.positionalArguments().isEmpty()) {
        QStringList names;
        for (const OptionRow& row : Options)
            names.append(QStringLiteral("--") + QLatin1String(row.name));
        const QString problem = parser.positionalArguments().isEmpty()
                                    ? parser.errorText()
                                    : QStringLiteral("Unexpected argument '%1'.")
                                          .arg(parser.positionalArguments().constFirst());
        return problem + QStringLiteral(" Options are: ") + names.join(QStringLiteral(", "));
    }
    commandLine->help = parser.isSet(QStringLiteral("help")) || parser.isSet(QStringLiteral("h"));
    commandLine->version = parser.isSet(QStringLiteral("version"));
    commandLine->traceFile = parser.value(QStringLiteral("trace"));
    commandLine->mayReplaceTrace = parser.isSet(QStringLiteral("force"));
    SimulatorOptions& simulator = commandLine->simulator;
    simulator.remote = parser.isSet(QStringLiteral("remote"));
    simulator.liveValues = !parser.isSet(QStringLiteral("frozen"));
    simulator.faults = parser.values(QStringLiteral("fault"));
    Reader reader(parser);
    readControllers(reader, &simulator);
    readBehaviour(reader, &simulator);
    reader.number("duration", 1, MostSeconds, &commandLine->durationSeconds);
    return reader.problem();
}

QString helpText()
{
    const QString indent = QStringLiteral("\n  ");
    return QStringLiteral("Usage: s7200-sim [OPTION...]\n"
                          "Simulated S7-200 controllers, each behind an ISO-on-TCP communication "
                          "module.\n\n") +
           optionsHelp() +
           QStringLiteral(
               "\nPrints \"listening on ADDRESS:PORT\" once it does, with --count above 1\n"
               "\"listening on ADDRESS:FIRST-LAST\". SIGINT and SIGTERM end it; with faults it\n"
               "then says how often each was injected. Each controller has a memory of its\n"
               "own and takes 64 connections.\n"
               "Exit status: 0 good, 1 cannot start, 2 wrong usage, 7 output cannot be written.\n\n"
               "Live values; one that is written stands still until the program ends:") +
           indent + ControllerMemory::liveValues().join(indent) +
           QStringLiteral("\n\nFaults, by default at every chance; at most one strikes a reply, "
                          "of several the\none named first. \"address A\" strikes each job that "
                          "touches A: a variable such as\nVW100, M0.3 or T37, or a byte address or "
                          "number in any area:") +
           indent + FaultInjector::descriptions().join(indent);
}

} // namespace s7200::sim
