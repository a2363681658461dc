// s7200-panel: an operator panel on the command line, and the worked example of a program on
// libs7200host.

#include "panel/commands.h"

#include <s7200_version.h>

#include <QCoreApplication>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace s7200::panel
{

namespace
{

/// A file opened later must not become a standard stream because that was closed. What is written
/// to a closed standard output fails, as it should.
void openStandardStreams()
{
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        const int mode = descriptor == STDERR_FILENO ? O_WRONLY : O_RDONLY;
        if (::fcntl(descriptor, F_GETFD) < 0 && ::open("/dev/null", mode) != descriptor)
            ::_exit(ExitUsage);
    }
}

QString usage()
{
    QString text = QStringLiteral("Usage: s7200-panel COMMAND [options] ...\n\n"
                                  "Reads and writes variables of S7-200 controllers.\n\n");
    for (const Command& command : allCommands()) {
        const QString form =
            QLatin1String(command.name) + QLatin1Char(' ') + QLatin1String(command.operands);
        text += QStringLiteral("  %1 %2\n").arg(form, -32).arg(QLatin1String(command.summary));
    }
    return text + QStringLiteral(
                      "\n"
                      "  s7200-panel watch VW0 Q0.0 T37 VD4/float       a simulated controller\n"
                      "  s7200-panel read --controller 192.168.0.5 VW100x4/hex\n"
                      "  s7200-panel write --controller 192.168.0.5 --verify VW100=7 M0.3=1\n\n"
                      "Values go to standard output, everything else to standard error.\n"
                      "s7200-panel COMMAND --help tells all of a command; --version.");
}

QString version()
{
    QString error;
    QString driver = findDriver(QString(), &error);
    if (driver.isEmpty())
        driver = QStringLiteral("not found");
    const QString commit = QStringLiteral(S7200_COMMIT);
    return QStringLiteral("s7200-panel %1%2\ndriver library: %3\nQt %4")
        .arg(QStringLiteral(S7200_VERSION),
             commit.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(commit), driver,
             QString::fromLatin1(qVersion()));
}

int runCommand(const Command& command, const QStringList& arguments)
{
    CommandLine line;
    QString help;
    QString error;
    if (line.parse(command, arguments, &help, &error))
        return command.run(line);
    if (error.isEmpty()) {
        print(help.trimmed());
        return ExitGood;
    }
    for (const QString& each : error.split(QLatin1Char('\n')))
        complain(each);
    return ExitUsage;
}

int runProgram(QStringList arguments)
{
    const QString name = arguments.value(1);
    if (name == QLatin1String("--help") || name == QLatin1String("-h") ||
        name == QLatin1String("help")) {
        print(usage());
        return ExitGood;
    }
    if (name == QLatin1String("--version") || name == QLatin1String("-v")) {
        print(version());
        return ExitGood;
    }
    QStringList names;
    for (const Command& command : allCommands()) {
        if (name == QLatin1String(command.name)) {
            arguments.removeAt(1);
            return runCommand(command, arguments);
        }
        names.append(QLatin1String(command.name));
    }
    return usageError((name.isEmpty() ? QStringLiteral("a command is missing")
                                      : QStringLiteral("there is no command ") + quoted(name)) +
                      QStringLiteral("; it is one of ") + names.join(QStringLiteral(", ")) +
                      QStringLiteral(" (--help tells more)"));
}

} // namespace

} // namespace s7200::panel

int main(int argc, char** argv)
{
    using namespace s7200::panel;
    openStandardStreams();
    // What is written then fails instead, which is told.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    readLocale();
    const QCoreApplication application(argc, argv);
    const int status = runProgram(QCoreApplication::arguments());
    if (!outputFailure().isEmpty()) {
        complain(outputFailure());
        return ExitOutput;
    }
    if (status == ExitQuit) {
        // Whoever started the program is to see what has ended it.
        std::signal(SIGQUIT, SIG_DFL);
        std::raise(SIGQUIT);
    }
    return status;
}
