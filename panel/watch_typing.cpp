// What reaches a run of `watch` from outside: typed lines and signals.

#include "panel/requests.h"
#include "panel/watch_run.h"

#include <csignal>
#include <unistd.h>
#include <utility>

namespace s7200::panel
{

namespace
{

/// Of what was typed, so that what became of it has room on a small screen.
constexpr int CellsShown = 32;

QString shownOf(const QString& typed)
{
    const bool utf8 = isUtf8Locale();
    return cellsOf(typed, utf8) <= CellsShown
               ? typed
               : beginning(typed, CellsShown - 4, utf8) + QStringLiteral(" ...");
}

} // namespace

void WatchRun::takeInput(const QByteArray& bytes)
{
    if (m_screen.isEntered() && m_screen.takesKeys()) {
        m_screen.takeInput(bytes);
        return;
    }
    for (const QString& typed : m_cutter.feed(bytes))
        takeLine(typed);
    // What wrote it may have been cut off within the value.
    if (bytes.isEmpty() && !m_cutter.rest().isEmpty())
        say(QStringLiteral("%1: not written, since the line does not end with a newline")
                .arg(m_cutter.rest()));
}

void WatchRun::takeLine(const QString& line)
{
    if (line != QLatin1String("q") && line != QLatin1String("quit"))
        writeTyped(line);
    else if (m_openWrites == 0 || std::exchange(m_leaves, true))
        end(m_conditions.isEmpty() ? ExitGood : ExitNotMet);
}

void WatchRun::writeTyped(const QString& text)
{
    Item item;
    QVector<quint32> values;
    QString error;
    if (m_options.readOnly) {
        say(QStringLiteral("%1: not written, since --read-only forbids it").arg(shownOf(text)));
        return;
    }
    if (!m_line.resolveAssignment(text, &item, &values, &error)) {
        say(error);
        return;
    }
    if (item.controller >= m_session->count()) {
        say(QStringLiteral("%1: there is no such controller").arg(quoted(text)));
        return;
    }
    Controller& controller = m_session->controller(item.controller);
    if (!m_board.has(item.controller)) {
        // Nothing of it is watched.
        connectController(item.controller);
        if (!controller.start(&error))
            say(error);
    }
    ++m_openWrites;
    const QString shown = shownOf(text);
    controller.write(item.tag.variable, values, [this, shown, item](const Result& result) {
        const Result told = outcomeOf(result);
        const QString failure =
            describeFailure(told.cause, told.detail, m_session->name(item.controller));
        const bool isKnown = told.detail == result.detail;
        const QString outcome = told      ? QStringLiteral("written")
                                : isKnown ? QStringLiteral("not written: ") + failure
                                          : failure;
        say(shown + QStringLiteral(": ") + outcome);
        if (--m_openWrites == 0 && m_leaves)
            end(m_conditions.isEmpty() ? ExitGood : ExitNotMet);
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
        say(error + QStringLiteral("; records go on into the old file"));
    return true;
}

void WatchRun::say(const QString& text)
{
    if (m_screen.isEntered())
        m_screen.message(stamped(text));
    if (!m_screen.isEntered() || ::isatty(STDERR_FILENO) == 0)
        complain(text);
}

} // namespace s7200::panel
