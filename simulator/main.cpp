// s7200-sim: simulated controllers as a program.

#include "simulator/command_line.h"
#include "simulator/simulator_thread.h"
#include "wire/descriptor_limit.h"
#include "wire/frame_trace.h"

#include <s7200_version.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDeadlineTimer>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

using namespace s7200;
using namespace s7200::sim;

namespace
{

/// As far as they mean the same, those of s7200-panel.
enum ExitStatus { Good = 0, Failed = 1, WrongUsage = 2, OutputFailed = 7 };

/// Of --verbose: standard error was a file that is full.
std::atomic<bool> logFailed{false};

/// False if it cannot be written.
bool printLine(std::FILE* stream, const QString& line)
{
    return std::fprintf(stream, "%s\n", line.toLocal8Bit().constData()) >= 0 &&
           std::fflush(stream) == 0;
}

void complain(const QString& text)
{
    printLine(stderr, QStringLiteral("s7200-sim: ") + text);
}

/// What the program was asked to print, or it has failed.
ExitStatus answer(const QString& text)
{
    if (printLine(stdout, text))
        return Good;
    complain(QStringLiteral("cannot write to standard output: ") +
             QString::fromLocal8Bit(std::strerror(errno)));
    return OutputFailed;
}

/// A socket opened later must not become standard output because that was closed. What is written
/// to a closed one fails, as it should.
void openStandardStreams()
{
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        const int mode = descriptor == STDERR_FILENO ? O_WRONLY : O_RDONLY;
        if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", mode) != descriptor)
            _exit(Failed);
    }
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
    // Continued after it was suspended, it waits on.
    const QDeadlineTimer end(std::chrono::seconds{durationSeconds}, Qt::PreciseTimer);
    timespec left = {};
    do {
        left.tv_sec = time_t(end.remainingTime() / 1000);
        left.tv_nsec = long(end.remainingTime() % 1000) * 1000000;
    } while (sigtimedwait(&ends, nullptr, &left) < 0 && errno == EINTR);
}

QString whereItListens(const SimulatorOptions& options, int firstPort)
{
    const bool ipv6 = options.address.contains(QLatin1Char(':'));
    QString text = QStringLiteral("listening on ") +
                   QString::fromLatin1(ipv6 ? "[%1]" : "%1").arg(options.address) +
                   QStringLiteral(":%1").arg(firstPort);
    if (options.count > 1)
        text += QStringLiteral("-%1").arg(firstPort + options.count - 1);
    return text;
}

void printFaultCounts(const SimulatorThread& simulator, const QStringList& faults)
{
    QMap<QString, quint64> counts = simulator.faultCounts();
    for (const QString& fault : faults)
        counts[fault.section(QLatin1Char(':'), 0, 0)] += 0; // name those that never struck too
    for (auto it = counts.constBegin(); it != counts.constEnd(); ++it)
        printLine(stderr, QStringLiteral("fault %1: %2 injected").arg(it.key()).arg(it.value()));
}

int run(CommandLine& commandLine, const sigset_t& endSignals)
{
    SimulatorOptions& options = commandLine.simulator;
    QString error = wire::raiseDescriptorLimit(options.count, 2);
    std::unique_ptr<wire::FrameTrace> trace;
    if (error.isEmpty() && !commandLine.traceFile.isEmpty()) {
        trace =
            wire::FrameTrace::open(commandLine.traceFile,
                                   commandLine.mayReplaceTrace ? wire::FrameTrace::ReplaceExisting
                                                               : wire::FrameTrace::KeepExisting,
                                   &error);
        options.trace = trace.get();
    }
    SimulatorThread simulator(options);
    if (!error.isEmpty() || !simulator.start(&error)) {
        complain(error);
        return Failed;
    }
    if (answer(whereItListens(options, simulator.port())) != Good)
        return OutputFailed; // whoever started it waits for that line
    waitForEnd(endSignals, commandLine.durationSeconds);
    simulator.stop();
    printFaultCounts(simulator, options.faults);
    if (trace && !trace->error().isEmpty()) {
        complain(trace->error());
        return OutputFailed;
    }
    return logFailed ? OutputFailed : Good;
}

} // namespace

int main(int argc, char** argv)
{
    openStandardStreams();
    std::signal(SIGXFSZ, SIG_IGN); // what is written then fails instead, which is told
    // Before any thread starts, so that all inherit it.
    const sigset_t endSignals = blockEndSignals();
    const QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    CommandLine commandLine;
    const QString problem = readCommandLine(parser, &commandLine);
    if (!problem.isEmpty()) {
        complain(problem);
        return WrongUsage;
    }
    if (commandLine.help)
        return answer(helpText());
    if (commandLine.version) {
        const QString commit = QStringLiteral(S7200_COMMIT);
        return answer(QStringLiteral("s7200-sim " S7200_VERSION ", Qt ") +
                      QLatin1String(qVersion()) +
                      (commit.isEmpty() ? commit : QStringLiteral(", commit ") + commit));
    }
    if (parser.isSet(QStringLiteral("verbose")))
        commandLine.simulator.log = [](const QString& line) {
            if (!printLine(stderr, line))
                logFailed = true;
        };
    return run(commandLine, endSignals);
}
