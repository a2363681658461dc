// s7200-panel: a small operator panel on a terminal, and the worked example of a host that loads
// and drives the driver library.

#include "panel/old_commands.h"
#include "panel/old_session.h"

#include <QCoreApplication>

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace
{

const char* const Usage =
    "Usage: s7200-panel COMMAND [options] ...\n"
    "\n"
    "Reads and writes variables of S7-200 controllers through the driver library.\n"
    "\n"
    "  watch VARIABLE...        show variables, over and over\n"
    "  read VARIABLE...         read variables once\n"
    "  write VARIABLE=VALUE...  write variables\n"
    "\n"
    "  s7200-panel watch VW0 Q0.0 T37 VD4/float          a simulated controller\n"
    "  s7200-panel read --controller 192.168.0.5 VW100x4/hex\n"
    "  s7200-panel write --controller 192.168.0.5 --verify VW100=7 M0.3=1\n"
    "\n"
    "Values go to standard output, everything else to standard error.\n"
    "s7200-panel COMMAND --help tells all of a command.\n";

/// A file opened later must not become standard output because that was closed.
void openStandardStreams()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (::fcntl(fd, F_GETFD) < 0 && ::open("/dev/null", O_RDWR) < 0)
            ::_exit(ExitUsage);
    }
}

int runCommand(const QString& command, const QStringList& arguments)
{
    PanelOptions options;
    QString help;
    QString error;
    if (!parseOptions(command, arguments, &options, &help, &error)) {
        if (error.isEmpty()) {
            std::fputs(help.toLocal8Bit().constData(), stdout);
            return ExitGood;
        }
        complain(error);
        return ExitUsage;
    }
    const std::unique_ptr<Session> session = Session::open(options, &error);
    if (!session) {
        complain(error);
        return ExitUsage;
    }
    if (command == QLatin1String("watch"))
        return runWatch(options, *session);
    return command == QLatin1String("read") ? runRead(options, *session)
                                            : runWrite(options, *session);
}

} // namespace

int main(int argc, char** argv)
{
    openStandardStreams();
    const QCoreApplication application(argc, argv);
    QStringList arguments = QCoreApplication::arguments();
    const QString command = arguments.value(1);
    if (command == QLatin1String("--help") || command == QLatin1String("-h") ||
        command == QLatin1String("help")) {
        std::fputs(Usage, stdout);
        return ExitGood;
    }
    if (command == QLatin1String("watch") || command == QLatin1String("read") ||
        command == QLatin1String("write")) {
        arguments.removeAt(1);
        return runCommand(command, arguments);
    }
    complain((command.isEmpty()
                  ? QStringLiteral("a command is missing")
                  : QStringLiteral("unknown command '%1'").arg(command.simplified())) +
             QStringLiteral("; it is watch, read or write (--help tells more)"));
    return ExitUsage;
}
