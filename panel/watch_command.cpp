#include "panel/display.h"
#include "panel/inbox.h"
#include "panel/old_commands.h"
#include "panel/old_session.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <atomic>
#include <fcntl.h>
#include <unistd.h>

namespace
{

constexpr int MsPerSecond = 1000;
/// Faster refreshes only flicker.
constexpr int ShortestRefreshMs = 40;
/// A block refused this often is taken out of the cycle. Once may be a disturbance on the wire.
constexpr int RefusalsBelieved = 2;
constexpr int LongestTypedLine = 4096;

/// One run of the command, on the main thread.
class WatchRun
{
public:
    WatchRun(const PanelOptions& panelOptions, Session& panelSession);
    int run();

private:
    struct Row {
        Variable variable;
        QString label;
        QString lastValue;                 ///< Empty: never read.
        Fault fault = Fault::NoConnection; ///< Of a row that was never read or is refused.
        int index = -1;                    ///< In the loop's list; -1: refused, no longer read.
    };
    struct Station {
        bool wasUp = false;
        QString trouble; ///< Empty while the link is up.
    };

    void hear(const LoopEvent& event);
    void linkIsUp(int station);
    void linkIsLost(const LoopEvent& event);
    void linkIsDown(const LoopEvent& event);
    void setAside(const LoopEvent& event);
    void watchRows();
    void refreshByCycle();
    void refresh();
    void showRows();
    int overdueMs() const;
    void blame(int station, Fault fault);
    QString rowText(Row* row);
    QString statusText();
    void readTyped();
    void writeTyped(const QString& line);
    void end(int status);
    int statusAtEnd() const;
    void printStatistics();

    const PanelOptions& options;
    Session& session;
    Display display;
    QEventLoop events;
    QTimer overdue;
    QTimer lifetime;
    QElapsedTimer sinceStart;
    QElapsedTimer sinceRefresh;
    QElapsedTimer sinceRate;
    quint64 requestsAtRate = 0;
    double rate = 0;
    QVector<Row> rows;
    std::map<int, Station> stations;
    QVector<QPair<ReadBlock, int>> refusals; ///< Refused blocks, and how often.
    int refreshes = 0;
    int exitStatus = -1;
    std::atomic<bool> cycleHeard{false}; ///< A CycleDone is on its way to the main thread.
    QByteArray typed;
    std::unique_ptr<QSocketNotifier> standardInput;
    Inbox inbox;
};

WatchRun::WatchRun(const PanelOptions& panelOptions, Session& panelSession)
    : options(panelOptions), session(panelSession),
      display(panelOptions.traceFile == QLatin1String("-")), inbox([this] { end(ExitGood); })
{
    for (const Variable& variable : options.variables) {
        Row row;
        row.variable = variable;
        row.label = variable.label();
        rows.append(row);
    }
    // In place the values stand below each other.
    int widest = 0;
    for (const Row& row : std::as_const(rows))
        widest = qMax(widest, int(row.label.size()));
    for (Row& row : rows) {
        if (display.isInPlace())
            row.label = row.label.leftJustified(widest);
    }
    for (auto it = options.loop.controllers.begin(); it != options.loop.controllers.end(); ++it)
        stations[it.key()].trouble = QStringLiteral("connecting");
}

int WatchRun::run()
{
    QObject::connect(&overdue, &QTimer::timeout, [this] { refresh(); });
    QObject::connect(&lifetime, &QTimer::timeout, [this] { end(statusAtEnd()); });
    lifetime.setSingleShot(true);
    if (options.durationMs > 0)
        lifetime.start(options.durationMs);
    standardInput.reset(new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read));
    QObject::connect(standardInput.get(), &QSocketNotifier::activated, [this] { readTyped(); });

    session.loop().setListener([this](const LoopEvent& event) {
        if (event.kind == LoopEvent::CycleDone && cycleHeard.exchange(true))
            return;
        inbox.post([this, event] { hear(event); });
    });
    watchRows();
    sinceStart.start();
    sinceRate.start();
    session.loop().start();
    if (exitStatus < 0)
        events.exec();
    session.loop().stop();
    const bool written = display.end();
    printStatistics();
    return written ? exitStatus : int(ExitUsage);
}

void WatchRun::watchRows()
{
    QVector<Variable> variables;
    for (Row& row : rows) {
        if (row.fault == Fault::Refused)
            continue;
        row.index = int(variables.size());
        variables.append(row.variable);
    }
    session.loop().watch(variables);
}

// What the loop tells

void WatchRun::hear(const LoopEvent& event)
{
    if (exitStatus >= 0)
        return;
    switch (event.kind) {
    case LoopEvent::LinkUp:
        linkIsUp(event.station);
        break;
    case LoopEvent::LinkLost:
        linkIsLost(event);
        break;
    case LoopEvent::LinkDown:
        linkIsDown(event);
        break;
    case LoopEvent::CycleDone:
        cycleHeard = false;
        refreshByCycle();
        break;
    }
}

void WatchRun::linkIsUp(int number)
{
    Station& station = stations[number];
    station.wasUp = true;
    station.trouble.clear();
    blame(number, Fault::NoAnswer);
    if (!sinceRefresh.isValid())
        overdue.start(overdueMs());
    if (!display.isInPlace())
        display.message(QStringLiteral("link up: %1").arg(session.controllerName(number)));
}

void WatchRun::linkIsLost(const LoopEvent& event)
{
    Station& station = stations[event.station];
    const QString controller = session.controllerName(event.station);
    station.trouble = describeFault(event.fault, event.detail, controller);
    if (!display.isInPlace())
        display.message(QStringLiteral("link down: ") + station.trouble);
    if (event.fault != Fault::Refused)
        blame(event.station, event.fault);
    else if (event.cyclic)
        setAside(event);
    if (exitStatus < 0 && sinceRefresh.isValid())
        showRows();
}

/// Why the station's variables that were never read were not.
void WatchRun::blame(int station, Fault fault)
{
    for (Row& row : rows) {
        if (row.lastValue.isEmpty() && row.fault != Fault::Refused &&
            session.loop().stationOf(row.variable) == station)
            row.fault = fault;
    }
}

/// Before the first connection this is the end, unless other stations can be reached.
void WatchRun::linkIsDown(const LoopEvent& event)
{
    const QString controller = session.controllerName(event.station);
    const QString trouble = describeFault(event.fault, event.detail, controller);
    Station& station = stations[event.station];
    const bool news = station.trouble != trouble;
    station.trouble = trouble;
    blame(event.station, event.fault);
    bool anyHope = false;
    for (const auto& entry : stations)
        anyHope =
            anyHope || entry.second.wasUp || entry.second.trouble == QStringLiteral("connecting");
    if (news && (!anyHope || !display.isInPlace()))
        display.message(trouble);
    if (!anyHope)
        end(exitStatusOf(event.fault));
    else if (sinceRefresh.isValid())
        showRows();
}

/// A refused read takes the link down, so it must not come again. The areas have no holes: what
/// the controller lacks is what lies furthest up in the refused block.
void WatchRun::setAside(const LoopEvent& event)
{
    int times = 0;
    for (QPair<ReadBlock, int>& refusal : refusals) {
        if (refusal.first == event.block)
            times = ++refusal.second;
    }
    if (times == 0)
        refusals.append({event.block, times = 1});
    if (times < RefusalsBelieved)
        return;
    int furthest = 0;
    const auto concerned = [&](const Row& row) {
        const int station = session.loop().stationOf(row.variable);
        return row.index >= 0 && event.block.overlaps(extentOf(row.variable, station));
    };
    for (const Row& row : std::as_const(rows)) {
        if (concerned(row))
            furthest = qMax(furthest, row.variable.endUnit());
    }
    bool anyLeft = false;
    for (Row& row : rows) {
        if (concerned(row) && row.variable.endUnit() == furthest) {
            row.fault = Fault::Refused;
            row.index = -1;
            display.message(QStringLiteral("%1 is not read any more, it was refused: %2")
                                .arg(row.variable.label(), event.detail));
        }
        anyLeft = anyLeft || row.index >= 0;
    }
    watchRows();
    if (!anyLeft)
        end(statusAtEnd());
}

// Showing

void WatchRun::refreshByCycle()
{
    if (!sinceRefresh.isValid() || sinceRefresh.elapsed() >= ShortestRefreshMs)
        refresh();
}

void WatchRun::refresh()
{
    showRows();
    sinceRefresh.start();
    overdue.start(overdueMs());
    if (++refreshes == options.count)
        end(statusAtEnd());
}

void WatchRun::showRows()
{
    QStringList lines;
    for (Row& row : rows)
        lines.append(rowText(&row));
    display.show(lines, statusText());
}

int WatchRun::overdueMs() const
{
    return qMax(2 * options.loop.intervalMs, MsPerSecond);
}

/// A value that is not current is never in the place of one that is.
QString WatchRun::rowText(Row* row)
{
    if (row->index < 0)
        return row->label + QStringLiteral(" ? refused");
    if (!session.loop().isFresh(row->index))
        return row->label + (row->lastValue.isEmpty() ? QStringLiteral(" ?")
                                                      : QStringLiteral(" ? was ") + row->lastValue);
    const QVector<quint32> values =
        decodeValues(row->variable, session.loop().value(row->variable));
    row->lastValue = formatValues(row->variable, values);
    // The driver's image never clears these bits: 0 is current, 1 says that it has been.
    const bool latched = row->variable.isLatched() && values.contains(1);
    return row->label + QLatin1Char(' ') + row->lastValue +
           (latched ? QStringLiteral(" latched") : QString());
}

QString WatchRun::statusText()
{
    const LoopStatus status = session.loop().status();
    // Once a second, since a single cycle says little; in the first second what there is.
    const qint64 elapsed = sinceRate.elapsed();
    if (elapsed >= MsPerSecond || sinceStart.elapsed() < MsPerSecond)
        rate = double(status.requests - requestsAtRate) * MsPerSecond /
               double(qMax<qint64>(elapsed, MsPerSecond));
    if (elapsed >= MsPerSecond) {
        requestsAtRate = status.requests;
        sinceRate.start();
    }
    QString link = QStringLiteral("link up");
    if (status.stations > 1)
        link = QStringLiteral("%1 of %2 links up").arg(status.stationsUp).arg(status.stations);
    for (const auto& entry : stations) {
        if (!entry.second.trouble.isEmpty())
            link = QStringLiteral("LINK DOWN: ") + entry.second.trouble;
    }
    return QStringLiteral("%1 | %2 cycles | %3 requests/s | %4 retries")
        .arg(link)
        .arg(status.cycles)
        .arg(rate, 0, 'f', 1)
        .arg(status.retries);
}

void WatchRun::printStatistics()
{
    const LoopStatus status = session.loop().status();
    complain(QStringLiteral("%1 cycles, %2 requests, %3 retries, %4 link losses in %5 s")
                 .arg(status.cycles)
                 .arg(status.requests)
                 .arg(status.retries)
                 .arg(status.linkLosses)
                 .arg(double(sinceStart.elapsed()) / MsPerSecond, 0, 'f', 1));
}

// Writing while it runs

void WatchRun::readTyped()
{
    char bytes[512];
    const ssize_t got = ::read(STDIN_FILENO, bytes, sizeof bytes);
    if (got <= 0) {
        // No more writes; the watching goes on.
        standardInput->setEnabled(false);
        return;
    }
    typed.append(bytes, int(got));
    for (int end; (end = int(typed.indexOf('\n'))) >= 0;) {
        const QString line = QString::fromLocal8Bit(typed.left(end)).simplified();
        typed.remove(0, end + 1);
        display.lineTyped();
        if (!line.isEmpty())
            writeTyped(line);
    }
    if (typed.size() > LongestTypedLine)
        typed.clear();
}

void WatchRun::writeTyped(const QString& line)
{
    Assignment assignment;
    QString error;
    if (parseAssignment(line, &assignment.variable, &assignment.values, &error))
        error = writeObjection(assignment, options.loop);
    if (!error.isEmpty()) {
        display.message(error);
        return;
    }
    const QString controller =
        session.controllerName(session.loop().stationOf(assignment.variable));
    session.loop().write(assignment.variable, assignment.values,
                         [this, line, controller](const RequestResult& result) {
                             const QString outcome =
                                 result.fault == Fault::None
                                     ? QStringLiteral("written")
                                     : QStringLiteral("not written: ") +
                                           describeFault(result.fault, result.detail, controller);
                             inbox.post(
                                 [=] { display.message(line + QStringLiteral(": ") + outcome); });
                         });
}

// The end

void WatchRun::end(int status)
{
    if (exitStatus < 0)
        exitStatus = status;
    overdue.stop();
    events.quit();
}

int WatchRun::statusAtEnd() const
{
    QVector<Fault> faults;
    for (const Row& row : rows)
        faults.append(row.lastValue.isEmpty() || row.fault == Fault::Refused ? row.fault
                                                                             : Fault::None);
    return exitStatusOf(faults);
}

} // namespace

int runWatch(const PanelOptions& options, Session& session)
{
    return WatchRun(options, session).run();
}
