#include "tests/simulation_run.h"

#include <utility>

namespace s7200::simulation
{

namespace
{

enum DecisionKind : quint64 { Length = 400, Lateness, Tie, StopsEarly, MachineSeed };

constexpr Micros Ms = 1000;
constexpr Micros Second = 1000 * Ms;
constexpr auto Never = std::numeric_limits<Micros>::max();
constexpr qint64 WallStart = 1700000000000;

/// A shorter interval makes more of each second.
Micros lengthOf(const Dice& dice, const ControllerSettings& settings)
{
    const int seconds = settings.intervalMs < 50 ? 25 : settings.intervalMs < 500 ? 80 : 250;
    return (seconds / 2 + dice.below(seconds, Length)) * Second;
}

QString shown(const Asked& asked)
{
    static const char* const names[] = {"I", "Q", "M", "S", "SM", "V", "AI", "AQ", "T", "C"};
    if (asked.kind == Asked::Connect)
        return QStringLiteral("connect");
    if (asked.kind == Asked::Setup)
        return QStringLiteral("setup");
    const QString what = QStringLiteral("%1 %2%3").arg(
        QLatin1String(asked.kind == Asked::Write ? "put" : "get"),
        QLatin1String(names[int(asked.span.area)]), QString::number(asked.span.first));
    return what + (asked.bit >= 0 ? QStringLiteral(".%1").arg(asked.bit)
                                  : QStringLiteral("+%1").arg(asked.span.bytes));
}

} // namespace

Run::Run(quint64 seed, const std::set<quint64>& spared, bool keepsEvents)
    : m_spared(spared), m_keepsEvents(keepsEvents), m_dice(seed, m_spared),
      m_settings(settingsOfRun(m_dice)), m_calmFrom(lengthOf(m_dice, m_settings)),
      m_weather(m_dice, m_calmFrom), m_record(m_settings.remoteAccess, m_settings.timeoutMs * Ms),
      m_network(m_dice, m_weather, m_agenda, m_record, *this, m_settings.remoteAccess,
                m_settings.timeoutMs * Ms),
      m_values(m_settings, m_record), m_requests(m_settings, m_record, m_values),
      m_links(m_settings, m_record, m_values)
{
    m_values.isBeingWritten = [this](int station, const Span& span) {
        return m_requests.isWriting(station, span);
    };
    static QString error;
    static const QString file = findDriver(QString(), &error);
    if (file.isEmpty() || !m_driver.load(file, &error))
        qFatal("%s", qPrintable(error));
    m_machine.reset(
        new LinkMachine(m_driver, m_settings, *this, quint32(m_dice.below(1 << 30, MachineSeed))));
}

Moment Run::now() const
{
    return {m_now, WallStart + m_wallShift + m_now / Ms};
}

void Run::complain(const QString& wrong)
{
    if (m_outcome.wrong.isEmpty())
        m_outcome.wrong = wrong;
}

void Run::note(const QString& text)
{
    if (m_keepsEvents)
        m_told << text;
}

void Run::digest(quint64 number)
{
    m_outcome.digest = mixed(m_outcome.digest, number, quint64(m_now));
}

void Run::digest(const QByteArray& bytes)
{
    quint64 hash = 0xCBF29CE484222325;
    for (char byte : bytes)
        hash = (hash ^ quint8(byte)) * 0x100000001B3;
    digest(hash);
}

// The world

/// Everything that the machine is told comes through here, and is judged when it has been dealt
/// with; in a completion or a slot there is more of it.
void Run::happens(const QString& text, const std::function<void()>& event)
{
    const bool inside = m_depth > 0;
    if (inside)
        note(QStringLiteral("(then %1)").arg(text));
    else
        m_told.clear();
    m_record.timePasses(m_now);
    settleRecord();
    ++m_depth;
    event();
    --m_depth;
    if (inside)
        return;
    if (m_outcome.wrong.isEmpty())
        judge();
    if (m_keepsEvents && (!text.isEmpty() || !m_told.isEmpty()))
        m_outcome.events << text + QStringLiteral(" -> ") + m_told.join(QStringLiteral("; "));
}

/// A reply, or that there is none, is known to the judges before the machine knows of it.
void Run::settleRecord()
{
    if (!m_record.takeEnd())
        return;
    const Exchange& exchange = *m_record.current();
    m_links.jobEnded(exchange, m_requests.hasOpen(exchange.station));
    if (exchange.end == Exchange::Refused && exchange.asked.kind == Asked::Read)
        m_values.refused(exchange);
}

void Run::takeOpened(int station, Micros)
{
    m_record.opened(station);
    happens(QStringLiteral("opened@%1").arg(station), [&] { m_machine->opened(station, now()); });
}

void Run::takeOpenFailed(int station, Micros)
{
    m_record.openFailed(station);
    happens(QStringLiteral("failed@%1").arg(station),
            [&] { m_machine->openFailed(station, QStringLiteral("refused"), now()); });
}

void Run::takeBytes(int station, const QByteArray& bytes, Micros)
{
    m_record.brought(station, bytes, m_now);
    happens(m_keepsEvents ? QStringLiteral("bytes@%1 ").arg(station) + bytes.toHex() : QString(),
            [&] { m_machine->received(station, bytes, now()); });
}

void Run::takeClosed(int station, Micros)
{
    m_record.lost(station, m_now);
    happens(QStringLiteral("closed@%1").arg(station), [&] { m_machine->closed(station, now()); });
}

// The machine

void Run::open(int station)
{
    note(QStringLiteral("open@%1").arg(station));
    digest(quint64(1000 + station));
    complain(m_record.opens(station, ++m_connections, m_now));
    complain(m_links.opens(station, m_now));
    m_network.open(station, m_connections, m_now);
}

void Run::close(int station)
{
    note(QStringLiteral("close@%1").arg(station));
    digest(quint64(2000 + station));
    m_record.closes(station, m_now);
    m_links.closes(station, m_now);
    m_network.close(station, m_now);
}

void Run::send(int station, const QByteArray& frame)
{
    digest(frame);
    const Moment moment = now();
    const QString wrong = m_record.sends(station, frame, m_now, moment.wallMs);
    complain(wrong);
    if (m_record.current())
        note(QStringLiteral("%1@%2").arg(shown(m_record.current()->asked)).arg(station));
    if (!wrong.isEmpty())
        return;
    complain(m_requests.sent(m_record.current()));
    m_network.send(station, frame, m_now);
}

/// Timers are late by nature, long ones more so.
void Run::wakeAt(Micros time)
{
    if (std::exchange(m_wake, time) != time)
        m_late = time - m_now >= 400 * Ms && time != Never
                     ? m_dice.below(20, Lateness, quint64(time)) * Ms
                     : 0;
}

void Run::tellLink(const LinkStatus& status)
{
    const bool trouble = status.cause != Cause::None;
    note(s7200::describe(status.state) + QStringLiteral("@%1").arg(status.station) +
         (trouble ? QStringLiteral(": ") + s7200::describe(status.cause) : QString()));
    digest(quint64(status.state) << 32 | quint64(status.cause) << 16 | quint64(status.station));
    complain(m_links.told(status));
}

void Run::tellValues(const QVector<int>& indexes)
{
    complain(m_values.told(indexes, *m_machine, m_now));
    for (int index : indexes) {
        const Value value = m_machine->value(index, m_now);
        digest(quint64(index) << 32 | quint64(value.quality));
        for (quint32 element : value.elements)
            digest(element);
        if (m_keepsEvents)
            note(m_machine->watched().at(index).label() + QLatin1Char(' ') +
                 s7200::describe(value.quality));
    }
}

void Run::tellCycle()
{
    note(QStringLiteral("cycle"));
    digest(3000);
    complain(m_values.cycleTold(*m_machine, m_now));
    m_links.cycleTold();
}

// The wheel

Micros Run::wakeDue() const
{
    return m_wake == Never ? Never : std::max({m_now, m_wake + m_late, m_agenda.pausedUntil()});
}

void Run::step()
{
    const Micros due = wakeDue();
    const Micros next = m_agenda.next();
    const Micros before = m_now;
    m_now = std::max(m_now, std::min(due, next));
    if (m_keepsEvents && m_now != before)
        m_outcome.events << QStringLiteral("+%1 -> ").arg((m_now - before) / Ms);
    if (next < due || (next == due && m_dice.below(2, Tie, quint64(m_now)) == 0)) {
        m_agenda.carryOut(m_now);
        return;
    }
    m_wake = Never;
    happens(QString(), [&] { m_machine->timePassed(now()); });
}

Outcome Run::carryOut()
{
    m_outcome.options =
        QStringLiteral("timeout %1, retries %2, interval %3, limit %4%5%6, stations %7")
            .arg(m_settings.timeoutMs)
            .arg(m_settings.retries)
            .arg(m_settings.intervalMs)
            .arg(m_settings.blockLimit)
            .arg(QLatin1String(m_settings.probe ? "" : ", no probe"),
                 QLatin1String(m_settings.remoteAccess ? ", remote" : ""))
            .arg(m_settings.stations.size());
    begin();
    const bool stopsEarly = m_dice.below(8, StopsEarly) == 0;
    while (m_now < (stopsEarly ? m_calmFrom * 3 / 4 : calmDeadline() + 15 * Second) &&
           m_outcome.wrong.isEmpty())
        step();
    if (m_outcome.wrong.isEmpty())
        stop();
    m_outcome.lasted = m_now;
    m_outcome.judged = m_values.judged;
    m_outcome.faults = m_network.struck;
    m_outcome.states = m_links.states;
    m_outcome.qualities = m_values.qualities;
    m_outcome.causes = m_links.causes;
    m_outcome.ends = m_requests.ends;
    m_outcome.struck = m_dice.struck();
    return m_outcome;
}

void Run::judge()
{
    const ExchangePtr& last = m_record.current();
    if (last && last->end == Exchange::Silence && !m_isStopped) {
        const Connection* const connection = m_record.connection(last->station);
        if (connection->number == last->connection && connection->state == Connection::Open)
            complain(QStringLiteral("does nothing about a time-out"));
    }
    complain(m_values.judge(*m_machine, m_now, m_wake <= m_now && !m_isStopped));
    if (m_wake > m_now)
        complain(m_requests.judge());
    if (!m_isStopped)
        complain(m_links.judge(*m_machine, m_now));
    if (m_now >= m_calmFrom)
        m_setAside = std::max(m_setAside, m_values.setAside());
    if (!m_isEnding && m_now >= calmDeadline())
        complain(judgeCalm());
}

Micros Run::twoCycles() const
{
    return 2 * (m_settings.intervalMs * Ms + 5 * Second);
}

/// Late replies are on their way for a while.
Micros Run::calmDeadline() const
{
    const Micros timeout = m_settings.timeoutMs * Ms;
    const int stations = std::max(1, int(m_settings.stations.size()));
    const Micros underWay = (6 + (m_settings.retries + 2) * stations) * timeout;
    const Micros cycles = twoCycles();
    const Micros aside = m_setAside > 0 ? (60 + 10 * m_setAside) * Second + underWay + cycles : 0;
    return m_calmFrom + underWay + 10 * Second + cycles + aside;
}

QString Run::judgeCalm() const
{
    const QString notGood = m_values.notGoodSince(m_now - twoCycles(), m_calmFrom);
    if (!notGood.isEmpty())
        return notGood + QStringLiteral(" was not good again in time");
    return m_requests.unended();
}

} // namespace s7200::simulation
