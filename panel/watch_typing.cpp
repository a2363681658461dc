// What reaches a run of `watch` from outside: typed lines and signals.

#include "panel/watch_run.h"

#include <csignal>
#include <unistd.h>

namespace s7200::panel
{

void WatchRun::takeLine(const QString& line)
{
    if (line == QLatin1String("q") || line == QLatin1String("quit"))
        end(m_conditions.isEmpty() ? ExitGood : ExitNotMet);
    else
        writeTyped(line);
}

void WatchRun::writeTyped(const QString& text)
{
    Item item;
    QVector<quint32> values;
    QString error;
    if (!m_line.resolveAssignment(text, &item, &values, &error)) {
        say(error);
        return;
    }
    if (item.controller >= m_session->count()) {
        say(QStringLiteral("%1: there is no such controller").arg(quoted(text)));
        return;
    }
    m_session->controller(item.controller)
        .write(item.tag.variable, values, [this, text, item](const Result& result) {
            const QString outcome = result ? QStringLiteral("written")
                                           : QStringLiteral("not written: ") +
                                                 describeFailure(result.cause, result.detail,
                                                                 m_session->name(item.controller));
            say(text + QStringLiteral(": ") + outcome);
        });
}

bool WatchRun::takeSignal(int number)
{
    if (m_screen.isEntered() && m_screen.takeSignal(number))
        return true;
    if (number != SIGHUP || m_options.outputFile.isEmpty())
        return false;
    QString error;
    if (!m_output.reopen(&error))
        say(error);
    return true;
}

void WatchRun::say(const QString& text)
{
    if (m_screen.isEntered())
        m_screen.message(text);
    if (!m_screen.isEntered() || ::isatty(STDERR_FILENO) == 0)
        complain(text);
}

} // namespace s7200::panel
