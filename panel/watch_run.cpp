#include "panel/watch_run.h"

#include "panel/statistics.h"

#include <QDateTime>

#include <algorithm>
#include <unistd.h>

namespace s7200::panel
{

namespace
{

constexpr int MsPerSecond = 1000;
constexpr int TickMs = 250;
constexpr int FastestTickMs = 50;
/// Faster drawing only flickers.
constexpr int ShortestDrawMs = 100;
constexpr qint64 RefusalQuietMs = 60 * MsPerSecond;

qint64 wallClock()
{
    return QDateTime::currentMSecsSinceEpoch();
}

} // namespace

WatchRun::WatchRun(CommandLine& line, const WatchOptions& options, const QVector<Item>& items)
    : m_line(line), m_options(options), m_refused(items.size(), -1), m_writer(options.format),
      m_filter(options.changes, options.heartbeatMs),
      m_screen(
          m_rows, [this](const QString& typed) { takeLine(typed); }, options.readOnly)
{
    for (const Item& item : items)
        m_rows.append(WatchedRow(item));
    for (const Condition& condition : options.conditions)
        m_conditions.append(rowOf(condition.item, items));
}

int WatchRun::run()
{
    if (!openOutput() || !openSession())
        return ExitUsage;
    m_sinceStart.start();
    m_sinceRate.start();
    m_sinceDraw.start();
    const bool traceOnTerminal =
        m_line.traceFile() == QLatin1String("-") && ::isatty(STDERR_FILENO) == 1;
    m_wantsScreen = !m_options.records && Terminal::isUsable() && !traceOnTerminal;
    m_writesRecords = !m_wantsScreen || !m_options.outputFile.isEmpty();
    m_screen.setStatus(statusLines());
    enterScreen();
    // What else comes in may be meant for others, such as the loop of a script around this.
    if (m_options.writes || ::isatty(STDIN_FILENO) == 1)
        m_input.reset(new StandardInput([this](const QByteArray& bytes) { takeInput(bytes); }));
    startTimers();
    stampMessages(true);
    QString error;
    const bool started = m_session->start(&error);
    const int status = started ? runEventLoop() : int(ExitUsage);
    stampMessages(false);
    m_screen.leave();
    if (!started) {
        complain(error);
        return status;
    }
    report(status);
    return status;
}

/// In the background, as soon as it is brought to the foreground.
void WatchRun::enterScreen()
{
    if (!m_wantsScreen || m_screen.isEntered() || !isForeground(STDOUT_FILENO))
        return;
    m_screen.enter();
    m_hadScreen = true;
}

bool WatchRun::openOutput()
{
    QString error;
    if (m_options.outputFile.isEmpty() || m_output.open(m_options.outputFile, &error))
        return true;
    complain(error);
    return false;
}

bool WatchRun::openSession()
{
    QString error;
    m_session = Session::open(m_line, &error);
    if (!m_session) {
        complain(error);
        return false;
    }
    m_session->setInterruptStatus(m_conditions.isEmpty() ? ExitGood : ExitNotMet);
    m_session->onSignal([this](int number) { return takeSignal(number); });
    m_session->onNote([this](const QString& text) { say(text); });
    m_targets.resize(m_session->count());
    for (int row = 0; row < int(m_rows.size()); ++row) {
        QVector<int>& rows = m_targets[m_rows.at(row).item.controller].rows;
        m_indexes.append(int(rows.size()));
        rows.append(row);
    }
    for (int i = 0; i < m_session->count(); ++i) {
        if (m_targets.at(i).rows.isEmpty())
            continue;
        m_intervals.append(m_session->controller(i).settings().intervalMs);
        connectController(i);
    }
    return true;
}

void WatchRun::addLinks(int index)
{
    const QMap<int, Endpoint>& stations = m_session->controller(index).settings().stations;
    if (stations.isEmpty())
        m_board.add(index, -1, m_session->name(index));
    for (auto it = stations.begin(); it != stations.end(); ++it)
        m_board.add(index, it.key(),
                    QStringLiteral("station %1 (%2)").arg(it.key()).arg(it.value().text()));
}

void WatchRun::connectController(int index)
{
    addLinks(index);
    Controller* controller = &m_session->controller(index);
    std::vector<Variable> variables;
    for (const int row : m_targets.at(index).rows)
        variables.push_back(m_rows.at(row).item.tag.variable);
    controller->watch(QVector<Variable>(variables.begin(), variables.end()));
    QObject::connect(controller, &Controller::linkChanged,
                     [this, index](const LinkStatus& status) { hearLink(index, status); });
    QObject::connect(controller, &Controller::valuesChanged,
                     [this, index](const QVector<int>& indexes) { hearValues(index, indexes); });
    QObject::connect(controller, &Controller::cycleDone, [this, index] { hearCycle(index); });
}

void WatchRun::startTimers()
{
    QObject::connect(&m_overdue, &QTimer::timeout, [this] { overdue(); });
    QObject::connect(&m_tick, &QTimer::timeout, [this] { tick(); });
    QObject::connect(&m_lifetime, &QTimer::timeout, [this] { endInTime(); });
    // The slowest controller makes the round.
    const auto interval = std::minmax_element(m_intervals.begin(), m_intervals.end());
    m_overdue.start(qMax(2 * *interval.second, MsPerSecond));
    m_tick.start(m_wantsScreen ? TickMs : qBound(FastestTickMs, *interval.first, MsPerSecond));
    m_lifetime.setTimerType(Qt::PreciseTimer); // others may come up to 5 % early
    if (m_options.durationMs > 0)
        endInTime();
}

/// A timer takes days, not months.
void WatchRun::endInTime()
{
    constexpr qint64 Longest = 1000000000;
    const qint64 left = m_options.durationMs - m_sinceStart.elapsed();
    if (left <= 0)
        end(statusAtEnd());
    else
        m_lifetime.start(int(qMin(left, Longest)));
}

// What the controllers tell

void WatchRun::hearLink(int controller, const LinkStatus& status)
{
    const QString said = m_board.hear(controller, status, elapsed());
    // On the screen each link has its line, which says more while it is not up.
    const bool comesBackAtOnce = status.cause == Cause::Refused;
    if (!said.isEmpty() && (!m_screen.isEntered() || comesBackAtOnce))
        say(said);
    const bool isEvent = status.state == LinkState::Up || status.cause != Cause::None;
    if (m_writesRecords && isEvent)
        m_output.write(m_writer.header(),
                       m_writer.linkRecord(m_session->recordName(controller, status.station),
                                           status, wallClock()));
    if (!m_options.waits && m_board.isHopeless())
        end(statusAtEnd());
    m_screen.setStatus(statusLines());
    m_screen.refresh();
}

void WatchRun::hearValues(int controller, const QVector<int>& indexes)
{
    // In the order of the operands, whatever was read first.
    QVector<int> sorted = indexes;
    std::sort(sorted.begin(), sorted.end());
    for (const int index : std::as_const(sorted)) {
        const int row = m_targets.at(controller).rows.value(index, -1);
        if (row >= 0)
            take(row, false);
    }
    lookAtConditions();
}

void WatchRun::hearCycle(int controller)
{
    Target& target = m_targets[controller];
    target.cycled = true;
    for (const int row : std::as_const(target.rows))
        take(row, true);
    lookAtConditions();
    for (int i = 0; i < int(m_targets.size()); ++i) {
        const bool awaited = !m_targets.at(i).rows.isEmpty() && m_board.mayRead(i);
        if (awaited && !m_targets.at(i).cycled)
            return;
    }
    finishRound();
}

/// `sample`: a whole cycle is done, the time for a point in the history and, if not only changes
/// are recorded, for a record.
void WatchRun::take(int row, bool sample)
{
    WatchedRow& watched = m_rows[row];
    const Value value = m_session->controller(watched.item.controller).value(m_indexes.at(row));
    watched.update(value, wallClock(), sample);
    if (value.quality == Quality::Refused)
        sayRefusal(row);
    if (m_writesRecords && value.quality != Quality::NeverRead &&
        (sample || m_options.changes || value.quality != Quality::Good))
        record(row, wallClock());
}

void WatchRun::record(int row, qint64 nowMs)
{
    const WatchedRow& watched = m_rows.at(row);
    const Item& item = watched.item;
    if (!m_filter.take(row, item.tag, watched.value, nowMs))
        return;
    const QString controller = m_session->recordName(item.controller, item.tag.variable.station);
    m_output.write(m_writer.header(), m_writer.record(item, controller, watched.value, nowMs));
}

void WatchRun::sayRefusal(int row)
{
    if (m_refused.at(row) >= 0 && elapsed() - m_refused.at(row) < RefusalQuietMs)
        return;
    m_refused[row] = elapsed();
    const WatchedRow& watched = m_rows.at(row);
    say(watched.item.label + QStringLiteral(": ") +
        describeFailure(Cause::Refused, watched.value.detail,
                        m_session->name(watched.item.controller)));
}

void WatchRun::finishRound()
{
    for (Target& target : m_targets)
        target.cycled = false;
    m_overdue.start();
    if (m_sinceDraw.elapsed() >= ShortestDrawMs) {
        m_sinceDraw.start();
        m_screen.setStatus(statusLines());
        m_screen.refresh();
    }
    if (++m_rounds == m_options.count)
        end(statusAtEnd());
}

/// No round was finished for long: what is there is shown, with what is wrong with it.
void WatchRun::overdue()
{
    for (int row = 0; row < int(m_rows.size()); ++row) {
        const WatchedRow& watched = m_rows.at(row);
        take(row, false);
        if (m_writesRecords && watched.value.quality == Quality::NeverRead)
            record(row, wallClock());
    }
    finishRound();
}

void WatchRun::tick()
{
    for (const QString& text : m_board.tick(elapsed()))
        say(text);
    if (m_writesRecords && m_options.outputFile.isEmpty() && outputIsClosed())
        return;
    enterScreen();
    if (!m_screen.isEntered()) {
        if (!m_saidConnecting && m_board.up() == 0 && elapsed() >= MsPerSecond &&
            ::isatty(STDERR_FILENO) == 1)
            complain(m_board.screenLines(elapsed()).join(QStringLiteral("; ")));
        m_saidConnecting = m_saidConnecting || elapsed() >= MsPerSecond;
        return;
    }
    for (WatchedRow& row : m_rows) {
        if (row.value.ageMs >= 0)
            row.value.ageMs = qMax<qint64>(0, wallClock() - row.value.timeMs);
    }
    m_screen.setStatus(statusLines());
    m_screen.refresh();
}

void WatchRun::lookAtConditions()
{
    if (m_conditions.isEmpty())
        return;
    for (int i = 0; i < int(m_conditions.size()); ++i) {
        if (!m_options.conditions.at(i).holds(m_rows.at(m_conditions.at(i)).value))
            return;
    }
    end(ExitGood);
}

qint64 WatchRun::elapsed() const
{
    return m_sinceStart.isValid() ? m_sinceStart.elapsed() : 0;
}

QStringList WatchRun::statusLines()
{
    const LinkStatistics all = statisticsOf(*m_session);
    // Once a second, since a single cycle says little; in the first second what there is.
    const qint64 sinceRate = m_sinceRate.isValid() ? m_sinceRate.elapsed() : 0;
    if (sinceRate >= MsPerSecond || elapsed() < MsPerSecond)
        m_rate = double(all.requests - m_requestsAtRate) * MsPerSecond /
                 double(qMax<qint64>(sinceRate, MsPerSecond));
    if (sinceRate >= MsPerSecond) {
        m_requestsAtRate = all.requests;
        m_sinceRate.start();
    }
    for (int i = 0; i < m_session->count(); ++i) {
        const Controller& controller = m_session->controller(i);
        const QList<int> stations = controller.settings().stations.keys();
        for (const int station : stations.isEmpty() ? QList<int>{-1} : stations)
            m_board.refresh(i, controller.link(station), elapsed());
    }
    QStringList lines = m_board.screenLines(elapsed());
    if (all.cycles > 0 || all.requests > 0)
        lines[0] += QStringLiteral(" | %1 | %2 requests/s | %3")
                        .arg(counted(all.cycles, "cycle"))
                        .arg(m_rate, 0, 'f', 1)
                        .arg(counted(all.retries, "retry", "retries"));
    if (all.linkLosses > 0)
        lines[0] += QStringLiteral(" | ") + counted(all.linkLosses, "link loss", "link losses");
    return lines;
}

// The end

int WatchRun::statusAtEnd() const
{
    QVector<Cause> causes;
    for (const WatchedRow& row : m_rows) {
        Cause cause = Cause::None;
        if (row.value.quality == Quality::Refused)
            cause = Cause::Refused;
        else if (row.value.elements.isEmpty())
            cause = m_board.status(row.item.controller, row.item.tag.variable.station).cause;
        causes.append(cause);
    }
    const ExitStatus status = exitStatusOf(causes);
    // A condition on what could not be read is a matter of the link.
    const bool anyRead = causes.contains(Cause::None);
    return m_conditions.isEmpty() || !anyRead ? status : ExitNotMet;
}

void WatchRun::report(int status) const
{
    for (const QString& text : m_board.finish())
        complain(text);
    const bool unanswered = status == ExitNoAnswer || status == ExitNoConnection ||
                            status == ExitRefused || status == ExitSomeFailed;
    if (unanswered && (m_hadScreen || m_board.saidNothing())) {
        for (const QString& text : m_board.troubles())
            complain(text);
    }
    if (status == ExitNotMet)
        complain(QStringLiteral("the condition was not met"));
    printStatistics(*m_session, elapsed());
}

} // namespace s7200::panel
