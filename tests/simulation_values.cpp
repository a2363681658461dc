#include "tests/simulation_values.h"

#include <algorithm>

namespace s7200::simulation
{

namespace
{

constexpr Micros Ms = 1000;

/// Both clocks' times belong to the first sending of that frame.
bool isTimeOf(const Exchange& exchange, const Value& value, Micros now)
{
    return value.ageMs == (now - exchange.firstSent) / Ms &&
           value.timeMs == exchange.firstSentWallMs;
}

bool holds(const Exchange& exchange, const Variable& variable, const Element& element,
           quint32 value)
{
    Span brought = exchange.asked.span;
    brought.bytes = exchange.asked.payload; // of remote access twice what was asked for
    return brought.covers(element.span) &&
           elementValue(variable, element,
                        exchange.sample.mid(element.span.first - exchange.asked.span.first,
                                            element.span.bytes)) == value;
}

QString texts(const QVector<quint32>& values)
{
    QStringList list;
    for (quint32 value : values.mid(0, 6))
        list << QString::number(value);
    return list.join(' ');
}

} // namespace

ValueJudge::ValueJudge(const ControllerSettings& settings, const Record& record)
    : m_settings(settings), m_record(record)
{
}

bool ValueJudge::isSame(const Value& a, const Value& b)
{
    return a.quality == b.quality && a.elements == b.elements;
}

void ValueJudge::lists(const QVector<Variable>& variables, const LinkMachine& machine, Micros now)
{
    std::vector<Entry> before = std::exchange(m_entries, {});
    for (int i = 0; i < int(before.size()); ++i)
        before[std::size_t(i)].last = machine.value(i, now);
    for (const Variable& variable : variables) {
        Entry entry;
        entry.variable = variable;
        entry.station = machine.stationOf(variable);
        entry.listedAt = m_record.lastOrder();
        const Span span = spanOf(variable);
        entry.isAbsent = !sim::ControllerMemory::contains(span.area, span.first, span.bytes);
        const auto same = std::find_if(before.begin(), before.end(), [&](const Entry& other) {
            return other.variable.label() == variable.label();
        });
        m_entries.push_back(same == before.end() ? entry : *same);
        m_everWatched.emplace_back(entry.station, spanOf(variable, true));
    }
}

QString ValueJudge::listed(const LinkMachine& machine, Micros now)
{
    QString wrong;
    for (int i = 0; i < int(m_entries.size()); ++i) {
        Entry& entry = m_entries[std::size_t(i)];
        entry.lastTold = machine.value(i, now);
        if (entry.lastTold.elements != entry.last.elements)
            wrong = entry.variable.label() + QStringLiteral(": a new list changes what is known");
    }
    return wrong;
}

QString ValueJudge::told(const QVector<int>& indexes, const LinkMachine& machine, Micros now)
{
    for (int index : indexes) {
        if (index < 0 || index >= int(m_entries.size()))
            return QStringLiteral("tells of a variable that is not there");
        m_entries[std::size_t(index)].lastTold = machine.value(index, now);
    }
    return QString();
}

/// All was read, but what is refused or has no link.
QString ValueJudge::cycleTold(const LinkMachine& machine, Micros now)
{
    QString wrong;
    for (int i = 0; i < int(m_entries.size()); ++i) {
        const Entry& entry = m_entries[std::size_t(i)];
        const Value value = machine.value(i, now);
        if (value.quality == Quality::LinkDown || value.quality == Quality::Refused ||
            machine.link(entry.station, now).state != LinkState::Up || !isOneBlock(entry.variable))
            continue;
        const ExchangePtr last = newest(entry.variable, entry.station, 0);
        if (!last || last->endOrder < std::max(m_cycleOrder, entry.listedAt))
            wrong = entry.variable.label() + ": a cycle without it";
    }
    m_tripsBefore = std::exchange(m_tripsThen, m_record.trips);
    m_cycleOrder = m_record.lastOrder();
    return wrong;
}

void ValueJudge::refused(const Exchange& exchange)
{
    m_refused.emplace_back(exchange.station, exchange.asked.span);
}

/// At most: cycles that were not told are within those that were, and what is read between two of
/// them may count for either.
Micros ValueJudge::lifetime() const
{
    const Micros cycle = m_record.trips - m_tripsBefore;
    const Micros floor = m_settings.intervalMs < 10 ? m_settings.timeoutMs * Ms : 0;
    return 3 * std::max({m_settings.intervalMs * Ms, cycle, floor});
}

bool ValueJudge::isOneBlock(const Variable& variable) const
{
    constexpr int Least = 20;
    return m_settings.blockLimit == 0 && !variable.area->numbered &&
           variable.endUnit() - variable.firstUnit() <= Least;
}

/// A write of the element was sent behind that order.
bool ValueJudge::isLater(const Variable&, const Element& element, int station, quint64 order) const
{
    const auto& writes = m_record.writes(station);
    for (auto write = writes.rbegin(); write != writes.rend() && (*write)->order > order; ++write) {
        const Asked& asked = (*write)->asked;
        const bool otherBit = element.bit >= 0 && asked.bit >= 0 && element.bit != asked.bit;
        if (asked.span.overlaps(element.span) && !otherBit)
            return true;
    }
    return false;
}

/// The newest read of all of it.
ExchangePtr ValueJudge::newest(const Variable& variable, int station, quint64 after) const
{
    const Span span = spanOf(variable, true);
    const auto& reads = m_record.reads(station);
    for (auto read = reads.rbegin(); read != reads.rend() && (*read)->order > after; ++read) {
        if ((*read)->asked.span.covers(span))
            return *read;
    }
    return nullptr;
}

/// Finds reads, behind `after`, that have brought each element, none begun before the value's time
/// and one right then.
QString ValueJudge::explain(const Variable& variable, int station, const Value& value,
                            quint64 after, bool isCurrent, Micros now, ExchangePtr* oldest) const
{
    const auto& reads = m_record.reads(station);
    for (auto read = reads.rbegin(); read != reads.rend() && !*oldest; ++read) {
        if ((*read)->order > after && isTimeOf(**read, value, now) &&
            (*read)->asked.span.overlaps(spanOf(variable)))
            *oldest = *read;
    }
    if (!*oldest)
        return QStringLiteral("its time is not that of a first sending");
    if (int(value.elements.size()) != variable.repeat)
        return QStringLiteral("not all of its elements");
    ExchangePtr known = *oldest; // of the element before: most come together
    for (int i = 0; i < variable.repeat; ++i) {
        const Element element = elementOf(variable, i);
        const auto brings = [&](const ExchangePtr& read) {
            return holds(*read, variable, element, value.elements.at(i)) &&
                   !(isCurrent && isLater(variable, element, station, read->order));
        };
        bool found = brings(known);
        for (auto read = reads.rbegin(); read != reads.rend() && !found; ++read) {
            if ((*read)->order < (*oldest)->order || (*read)->order <= after)
                break;
            known = *read;
            found = brings(known);
        }
        if (!found)
            return QStringLiteral("element %1 was not in the controller then, or was written since")
                .arg(i);
    }
    return QString();
}

QString ValueJudge::judgeGood(Entry& entry, const Value& value, Micros now)
{
    const Connection* const connection = m_record.connection(entry.station);
    if (!connection || connection->state != Connection::Open)
        return QStringLiteral("good without a connection");
    const bool known = entry.oldest && isTimeOf(*entry.oldest, value, now) &&
                       value.elements == entry.last.elements && entry.isSettled &&
                       entry.writesSeen == m_record.lastWrite();
    if (!known) {
        entry.oldest = nullptr;
        const QString wrong = explain(entry.variable, entry.station, value, connection->order, true,
                                      now, &entry.oldest);
        if (!wrong.isEmpty())
            return wrong;
        entry.writesSeen = m_record.lastWrite();
    }
    if (isOneBlock(entry.variable) &&
        newest(entry.variable, entry.station, entry.oldest->order) != nullptr)
        return QStringLiteral("a newer reading is not shown");
    if (now - entry.oldest->firstSent >= lifetime())
        return QStringLiteral("good %1 ms after its reading; it lives %2 ms at most")
            .arg((now - entry.oldest->firstSent) / Ms)
            .arg(lifetime() / Ms);
    return QString();
}

/// Whether it should not have been good.
QString ValueJudge::judgeOther(const Entry& entry, const Value& value, Micros now) const
{
    const Connection* const connection = m_record.connection(entry.station);
    if (value.quality == Quality::Refused) {
        const bool was = std::any_of(m_refused.begin(), m_refused.end(), [&](const auto& refusal) {
            return refusal.first == entry.station &&
                   refusal.second.overlaps(spanOf(entry.variable, true));
        });
        if (!was)
            return QStringLiteral("refused, but nobody has refused it");
    }
    if (!connection || connection->state != Connection::Open)
        return QString();
    const auto& reads = m_record.reads(entry.station);
    if (value.quality == Quality::LinkDown && !reads.empty() &&
        reads.back()->order > connection->order)
        return QStringLiteral("link down, but its controller answers");
    if (!isOneBlock(entry.variable))
        return QString();
    const ExchangePtr last = newest(entry.variable, entry.station, entry.listedAt);
    if (!last || last->order < connection->order || last->endedAt < connection->orderedAt ||
        now - last->firstSent >= 3 * m_settings.intervalMs * Ms)
        return QString();
    if (isBeingWritten(entry.station, spanOf(entry.variable, true)))
        return QString();
    for (const ExchangePtr& write : m_record.writes(entry.station)) {
        Span span = write->asked.span;
        if (write->order > last->order && span.overlaps(spanOf(entry.variable, true)))
            return QString();
    }
    return QStringLiteral("%1, but it was read %2 ms ago")
        .arg(describe(value.quality))
        .arg((now - last->firstSent) / Ms);
}

QString ValueJudge::judgeOne(Entry& entry, const Value& value, Micros now)
{
    ++judged;
    ++qualities[std::size_t(value.quality)];
    if (value.elements.isEmpty() != (value.ageMs < 0) ||
        (value.quality == Quality::NeverRead && !value.elements.isEmpty()))
        return QStringLiteral("elements without a time, or a time without elements");
    if (value.quality == Quality::Good)
        return judgeGood(entry, value, now);
    const QString wrong = judgeOther(entry, value, now);
    if (!wrong.isEmpty() || value.elements.isEmpty() || value.elements == entry.last.elements)
        return wrong;
    ExchangePtr oldest;
    return explain(entry.variable, entry.station, value, 0, false, now, &oldest);
}

QString ValueJudge::judge(const LinkMachine& machine, Micros now, bool newsToCome)
{
    for (int i = 0; i < int(m_entries.size()); ++i) {
        Entry& entry = m_entries[std::size_t(i)];
        const Value value = machine.value(i, now);
        QString wrong = judgeOne(entry, value, now);
        if (wrong.isEmpty() && !newsToCome && !isSame(value, entry.lastTold))
            wrong = QStringLiteral("changed and not told");
        if (!wrong.isEmpty())
            return QStringLiteral("%1 (%2, %3 ms, %4): %5")
                .arg(entry.variable.label(), describe(value.quality))
                .arg(value.ageMs)
                .arg(texts(value.elements), wrong);
        entry.last = value;
        entry.isSettled = true;
        if (value.quality == Quality::Good)
            entry.lastGood = now;
    }
    return QString();
}

QString ValueJudge::judgeRead(const Variable& variable, int station, const Value& value,
                              quint64 order, Micros now) const
{
    ExchangePtr oldest;
    const bool isGood = value.quality == Quality::Good;
    // What is written in the moment that the last part arrives is written behind it.
    const QString wrong = explain(variable, station, value, order, false, now, &oldest);
    if (!wrong.isEmpty())
        return wrong;
    Micros trips = 0; // of its parts: how long they take is the least that it lives
    for (const ExchangePtr& read : m_record.reads(station)) {
        if (read->order >= oldest->order && read->asked.span.overlaps(spanOf(variable)))
            trips += read->endedAt - read->firstSent;
    }
    if (isGood && now - oldest->firstSent >= std::max(lifetime(), 3 * trips))
        return QStringLiteral("good %1 ms after its reading").arg(value.ageMs);
    return isGood || value.quality == Quality::Stale ? QString()
                                                     : QStringLiteral("neither good nor stale");
}

QString ValueJudge::notGoodSince(Micros time, Micros calm) const
{
    const bool anyAbsent = std::any_of(m_entries.begin(), m_entries.end(),
                                       [](const Entry& entry) { return entry.isAbsent; });
    for (const Entry& entry : m_entries) {
        if (!entry.isAbsent && entry.lastGood < (anyAbsent ? calm : time))
            return entry.variable.label();
    }
    return QString();
}

int ValueJudge::setAside() const
{
    return int(std::count_if(m_entries.begin(), m_entries.end(), [](const Entry& entry) {
        return entry.last.quality == Quality::Refused;
    }));
}

bool ValueJudge::wasWatched(int station, const Span& span) const
{
    return std::any_of(m_everWatched.begin(), m_everWatched.end(), [&](const auto& watched) {
        return watched.first == station && watched.second.overlaps(span);
    });
}

bool ValueJudge::hasWatched(int station) const
{
    return std::any_of(m_entries.begin(), m_entries.end(), [station](const Entry& entry) {
        return entry.station == station && entry.last.quality != Quality::Refused;
    });
}

} // namespace s7200::simulation
