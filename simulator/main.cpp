// s7200-sim: a simulated controller as a program.

#include "simulator/fault_injector.h"
#include "simulator/simulator_thread.h"
#include "wire/frame_trace.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <csignal>
#include <cstdio>
#include <ctime>

using namespace s7200;
using namespace s7200::sim;

namespace
{

enum ExitStatus { Good = 0, CannotStart = 1, WrongUsage = 2 };

struct Settings {
    SimulatorOptions simulator;
    QString traceFile;
    int durationSeconds = 0; ///< 0: until a signal comes.
    bool help = false;
};

void printLine(std::FILE* stream, const QString& line)
{
    std::fprintf(stream, "%s\n", line.toLocal8Bit().constData());
    std::fflush(stream);
}

const QList<QCommandLineOption>& options()
{
    static const QList<QCommandLineOption> list = {
        {{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this text.")},
        {QStringLiteral("listen"),
         QStringLiteral("Where to listen; port 0 picks a free one. Default: 127.0.0.1:0"),
         QStringLiteral("ADDRESS:PORT")},
        {QStringLiteral("remote"),
         QStringLiteral("Take forwarding records of remote access instead of S7 jobs.")},
        {QStringLiteral("frozen"), QStringLiteral("No live values: only writes change memory.")},
        {QStringLiteral("verbose"), QStringLiteral("A line per request on standard error.")},
        {QStringLiteral("trace"),
         QStringLiteral("Write all bytes to a capture file, or as hex lines to standard error if "
                        "FILE is -."),
         QStringLiteral("FILE")},
        {QStringLiteral("fault"),
         QStringLiteral("Let something go wrong, see below; may be repeated."),
         QStringLiteral("KIND[:PROBABILITY|:every N|:address A]")},
        {QStringLiteral("seed"), QStringLiteral("Seed of all randomness in faults. Default: 1"),
         QStringLiteral("N")},
        {QStringLiteral("duration"), QStringLiteral("End after so many seconds."),
         QStringLiteral("S")},
    };
    return list;
}

QString helpText(const QCommandLineParser& parser)
{
    const QString indent = QStringLiteral("\n  ");
    return parser.helpText() +
           QStringLiteral("\nPrints \"listening on ADDRESS:PORT\" once it does. SIGINT and SIGTERM "
                          "end it; with faults it then\nsays how often each was injected. Exit "
                          "status: 0 good, 1 cannot start, 2 wrong usage.\n\nLive values:") +
           indent + ControllerMemory::liveValues().join(indent) +
           QStringLiteral("\n\nFaults, by default at every chance; at most one strikes a reply, of "
                          "several the one named first:") +
           indent + FaultInjector::descriptions().join(indent);
}

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

/// Reads the options' values; returns what is wrong, empty if nothing.
QString readValues(const QCommandLineParser& parser, Settings* settings)
{
    const QString listen = parser.value(QStringLiteral("listen"));
    if (parser.isSet(QStringLiteral("listen")) && !parseListen(listen, &settings->simulator))
        return QStringLiteral("--listen \"%1\": right is ADDRESS:PORT, such as 127.0.0.1:1102")
            .arg(listen);
    bool good = true;
    if (parser.isSet(QStringLiteral("seed")))
        settings->simulator.seed = parser.value(QStringLiteral("seed")).toUInt(&good);
    if (!good)
        return QStringLiteral("--seed \"%1\": right is a number from 0 to 4294967295")
            .arg(parser.value(QStringLiteral("seed")));
    const QString duration = parser.value(QStringLiteral("duration"));
    if (parser.isSet(QStringLiteral("duration")))
        settings->durationSeconds = duration.toInt(&good);
    if (!good || (settings->durationSeconds < 1 && parser.isSet(QStringLiteral("duration"))))
        return QStringLiteral("--duration \"%1\": right is a number of seconds from 1")
            .arg(duration);
    QString faultError;
    FaultInjector(0).setFaults(parser.values(QStringLiteral("fault")), &faultError);
    return faultError;
}

/// Reads the command line; returns what is wrong, empty if nothing.
QString parseCommandLine(QCommandLineParser& parser, Settings* settings)
{
    parser.addOptions(options());
    if (!parser.parse(QCoreApplication::arguments()) || !parser.positionalArguments().isEmpty()) {
        QStringList names;
        for (const QCommandLineOption& option : options())
            names.append(QStringLiteral("--") + option.names().constLast());
        const QString problem = parser.positionalArguments().isEmpty()
                                    ? parser.errorText()
                                    : QStringLiteral("Unexpected argument '%1'.")
                                          .arg(parser.positionalArguments().constFirst());
        return problem + QStringLiteral(" Options are: ") + names.join(QStringLiteral(", "));
    }
    settings->help = parser.isSet(QStringLiteral("help"));
    settings->traceFile = parser.value(QStringLiteral("trace"));
    settings->simulator.remote = parser.isSet(QStringLiteral("remote"));
    settings->simulator.liveValues = !parser.isSet(QStringLiteral("frozen"));
    settings->simulator.faults = parser.values(QStringLiteral("fault"));
    if (parser.isSet(QStringLiteral("verbose")))
        settings->simulator.log = [](const QString& line) { printLine(stderr, line); };
    return readValues(parser, settings);
}

/// SIGINT and SIGTERM, blocked so that one thread can wait for them.
sigset_t blockEndSignals()
{
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    return ends;
}

void waitForEnd(const sigset_t& ends, int durationSeconds)
{
    if (durationSeconds == 0) {
        int signal;
        sigwait(&ends, &signal);
        return;
    }
    timespec duration = {};
    duration.tv_sec = durationSeconds;
    sigtimedwait(&ends, nullptr, &duration);
}

void printFaultCounts(const SimulatorThread& simulator, const QStringList& faults)
{
    QMap<QString, quint64> counts = simulator.faultCounts();
    for (const QString& fault : faults)
        counts[fault.section(QLatin1Char(':'), 0, 0)] += 0; // name those that never struck too
    for (auto it = counts.constBegin(); it != counts.constEnd(); ++it)
        printLine(stderr, QStringLiteral("fault %1: %2 injected").arg(it.key()).arg(it.value()));
}

int run(Settings& settings, const sigset_t& endSignals)
{
    QString error;
    std::unique_ptr<wire::FrameTrace> trace;
    if (!settings.traceFile.isEmpty()) {
        trace = wire::FrameTrace::open(settings.traceFile, wire::FrameTrace::KeepExisting, &error);
        if (!trace) {
            printLine(stderr, error);
            return CannotStart;
        }
        settings.simulator.trace = trace.get();
    }
    SimulatorThread simulator(settings.simulator);
    if (!simulator.start(&error)) {
        printLine(stderr, error);
        return CannotStart;
    }
    const bool ipv6 = settings.simulator.address.contains(QLatin1Char(':'));
    const QString host = QString::fromLatin1(ipv6 ? "[%1]" : "%1").arg(settings.simulator.address);
    printLine(stdout, QStringLiteral("listening on %1:%2").arg(host).arg(simulator.port()));
    waitForEnd(endSignals, settings.durationSeconds);
    simulator.stop();
    printFaultCounts(simulator, settings.simulator.faults);
    return Good;
}

} // namespace

int main(int argc, char** argv)
{
    // Before any thread starts, so that all inherit it.
    const sigset_t endSignals = blockEndSignals();
    const QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("A simulated S7-200 controller behind an ISO-on-TCP communication module."));
    Settings settings;
    const QString problem = parseCommandLine(parser, &settings);
    if (!problem.isEmpty()) {
        printLine(stderr, problem);
        return WrongUsage;
    }
    if (settings.help) {
        printLine(stdout, helpText(parser));
        return Good;
    }
    return run(settings, endSignals);
}
