#ifndef PANEL_MESSAGES_H
#define PANEL_MESSAGES_H

#include <s7200host/link.h>

#include <QByteArray>
#include <QString>
#include <QVector>

namespace s7200::panel
{

/// What the program's exit status says.
enum ExitStatus {
    ExitGood = 0,
    ExitDiffers = 1, ///< Of diff and replay.
    ExitUsage = 2,   ///< Also a file that cannot be opened; nothing was sent.
    ExitNoConnection = 3,
    ExitNoAnswer = 4,
    ExitRefused = 5,    ///< Refused by the controller, an invalid reply, or not verified.
    ExitSomeFailed = 6, ///< Some of several, not all.
    ExitOutput = 7,     ///< Output cannot be written.
    ExitNotMet = 8,     ///< Time was up before the condition of --until was met.
    ExitQuit = 131,     ///< SIGQUIT, of which main() dies in the end; a shell says 128 and 3.
};

/// The exit status that a cause alone gives.
ExitStatus exitStatusOf(Cause cause);

/// The exit status after several requests, `causes` having one entry for each, Cause::None for the
/// good ones: that of the first when all have failed.
ExitStatus exitStatusOf(const QVector<Cause>& causes);

/// What happened, with the controller's name: "no connection to press1 (10.0.0.5:102): ...".
QString describeFailure(Cause cause, const QString& detail, const QString& controller);

/// "1 retry", "2 retries"; `many` where it is not the word with an s.
QString counted(quint64 count, const char* one, const char* many = nullptr);

/// Runs the main event loop until end() is called, or was called before; gives the status. The
/// first one counts.
int runEventLoop();
void end(int status);

/// Asks the environment how text is to be written: call it first of all, since Qt may change the
/// locale.
void readLocale();
bool isUtf8Locale();

/// As the terminal's locale has it: UTF-8, or ASCII with a question mark for the rest.
QByteArray encoded(const QString& text);

/// While it is on, messages carry the time: local, HH:MM:SS.
void stampMessages(bool on);
/// The text with that, as complain() and failOutput() have it, for other places.
QString stamped(const QString& text);

/// A line on standard error, after the program's name.
void complain(const QString& text);

/// complain(), and ExitUsage.
int usageError(const QString& text);

/// A line on standard output. If it cannot be written, end(ExitOutput) is called; main() says
/// why.
void print(const QString& line);

/// The same for bytes as they are. False if they, or any before, could not be written.
bool printBytes(const QByteArray& bytes);

/// Takes note of output that cannot be written, and calls end(ExitOutput). The first counts.
void failOutput(const QString& why);
/// Why; empty if all could be written.
QString outputFailure();

/// True, and end(ExitOutput), if nobody reads standard output any more: what is behind a pipe has
/// ended.
bool outputIsClosed();

} // namespace s7200::panel

#endif
