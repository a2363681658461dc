#include "panel/messages.h"

#include "panel/whole_write.h"

#include <QCoreApplication>
#include <QTime>

#include <cerrno>
#include <clocale>
#include <cstring>
#include <langinfo.h>
#include <poll.h>
#include <unistd.h>

namespace s7200::panel
{

namespace
{

const QLatin1String StandardOutput("cannot write to standard output: ");

bool utf8Locale = false;
int endStatus = -1; ///< Not ended: -1.
QString failure;    ///< Of output; the first one.
bool stamps = false;

} // namespace

ExitStatus exitStatusOf(Cause cause)
{
    switch (cause) {
    case Cause::None:
        return ExitGood;
    case Cause::NoConnection:
    case Cause::Closed:
    case Cause::ConnectionRefused:
        return ExitNoConnection;
    case Cause::TimedOut:
    case Cause::Dropped:
    case Cause::Stopped:
        return ExitNoAnswer;
    default:
        return ExitRefused;
    }
}

ExitStatus exitStatusOf(const QVector<Cause>& causes)
{
    ExitStatus first = ExitGood;
    for (auto it = causes.rbegin(); it != causes.rend(); ++it) {
        if (*it != Cause::None)
            first = exitStatusOf(*it);
    }
    return first != ExitGood && causes.contains(Cause::None) ? ExitSomeFailed : first;
}

QString describeFailure(Cause cause, const QString& detail, const QString& controller)
{
    switch (cause) {
    case Cause::NoConnection:
        return QStringLiteral("no connection to %1: %2").arg(controller, detail);
    case Cause::SetupRefused:
        return QStringLiteral("%1: setup communication failed: %2").arg(controller, detail);
    case Cause::Refused:
        return QStringLiteral("refused by %1: %2").arg(controller, detail);
    default:
        return QStringLiteral("%1: %2").arg(controller,
                                            detail.isEmpty() ? describe(cause) : detail);
    }
}

QString counted(quint64 count, const char* one, const char* many)
{
    const QString number = QString::number(count) + QLatin1Char(' ');
    if (count == 1)
        return number + QLatin1String(one);
    return number + (many ? QLatin1String(many) : QLatin1String(one) + QLatin1Char('s'));
}

int runEventLoop()
{
    return endStatus >= 0 ? endStatus : QCoreApplication::exec();
}

void end(int status)
{
    if (endStatus < 0)
        endStatus = status;
    QCoreApplication::exit(endStatus);
}

void readLocale()
{
    std::setlocale(LC_CTYPE, "");
    utf8Locale = std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0;
}

bool isUtf8Locale()
{
    return utf8Locale;
}

QByteArray encoded(const QString& text)
{
    if (utf8Locale)
        return text.toUtf8();
    QByteArray ascii;
    for (const QChar letter : text) {
        if (!letter.isLowSurrogate())
            ascii += letter.unicode() < 0x80 ? char(letter.unicode()) : '?';
    }
    return ascii;
}

void stampMessages(bool on)
{
    stamps = on;
}

QString stamped(const QString& text)
{
    return stamps ? QTime::currentTime().toString(QStringLiteral("HH:mm:ss ")) + text : text;
}

void complain(const QString& text)
{
    QString shown = QStringLiteral("s7200-panel: ");
    for (const QChar c : stamped(text)) {
        // A file's name may hold what would command the terminal.
        const bool isCommand = c.category() == QChar::Other_Control && c != QLatin1Char('\n');
        shown += isCommand ? QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'))
                           : QString(c);
    }
    // Nobody can be told if this fails.
    writeWhole(STDERR_FILENO, encoded(shown) + '\n');
}

int usageError(const QString& text)
{
    complain(text);
    return ExitUsage;
}

void print(const QString& line)
{
    printBytes(encoded(line) + '\n');
}

bool printBytes(const QByteArray& bytes)
{
    // Whatever has become of other output, a terminal must be given back.
    static bool failed = false;
    if (failed)
        return false;
    const int error = writeWhole(STDOUT_FILENO, bytes);
    failed = error != 0;
    if (failed)
        failOutput(StandardOutput + QString::fromLocal8Bit(std::strerror(error)));
    return !failed;
}

void failOutput(const QString& why)
{
    if (failure.isEmpty())
        failure = stamped(why);
    end(ExitOutput);
}

QString outputFailure()
{
    return failure;
}

bool outputIsClosed()
{
    pollfd output = {STDOUT_FILENO, 0, 0};
    if (::poll(&output, 1, 0) != 1 || (output.revents & POLLERR) == 0)
        return false;
    failOutput(StandardOutput + QString::fromLocal8Bit(std::strerror(EPIPE)));
    return true;
}

} // namespace s7200::panel
