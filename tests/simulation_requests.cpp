#include "tests/simulation_requests.h"

#include <algorithm>

namespace s7200::simulation
{

RequestJudge::RequestJudge(const ControllerSettings& settings, const Record& record,
                           const ValueJudge& values)
    : m_settings(settings), m_record(record), m_values(values)
{
}

int RequestJudge::asked(const Variable& variable, int station, const QVector<quint32>& values)
{
    Asking asking;
    asking.variable = variable;
    asking.station = station;
    asking.values = values;
    asking.bytes = bytesOfValues(variable, values);
    asking.order = m_record.lastOrder();
    m_askings.push_back(asking);
    ++m_open;
    return int(m_askings.size()) - 1;
}

int RequestJudge::firstOpen(int station) const
{
    for (int i = 0; m_open > 0 && i < int(m_askings.size()); ++i) {
        if (!m_askings[std::size_t(i)].hasEnded && m_askings[std::size_t(i)].station == station)
            return i;
    }
    return -1;
}

bool RequestJudge::hasOpen(int station) const
{
    return firstOpen(station) >= 0;
}

QString RequestJudge::judge()
{
    const int amid = std::exchange(m_probedAmid, -1);
    return amid >= 0 && !m_askings[std::size_t(amid)].hasEnded
               ? QStringLiteral("a probe amid request %1, ").arg(amid) +
                     m_askings[std::size_t(amid)].variable.label()
               : QString();
}

bool RequestJudge::isWriting(int station, const Span& span) const
{
    return m_open > 0 && std::any_of(m_askings.begin(), m_askings.end(), [&](const Asking& asking) {
               return !asking.hasEnded && asking.station == station && !asking.values.isEmpty() &&
                      spanOf(asking.variable).overlaps(span);
           });
}

QString RequestJudge::unended() const
{
    for (std::size_t i = 0; i < m_askings.size(); ++i) {
        if (!m_askings[i].hasEnded)
            return QStringLiteral("request %1, %2, never ends")
                .arg(i)
                .arg(m_askings[i].variable.label());
    }
    return QString();
}

/// True if the frame writes what was asked for, and nothing beside it.
bool RequestJudge::isPartOf(const Asked& write, const Asking& asking) const
{
    for (int i = 0; i < asking.variable.repeat; ++i) {
        const Element element = elementOf(asking.variable, i);
        if (element.bit >= 0) {
            if (write.bit == element.bit && write.span.first == element.span.first &&
                write.span.area == element.span.area)
                return (write.data.at(0) & 1) == int(asking.values.at(i) & 1);
            continue;
        }
        if (asking.variable.area->width == Width::Byte && write.bit >= 0 &&
            element.span.covers(write.span)) // an odd byte goes bit by bit
            return (write.data.at(0) & 1) == int(asking.values.at(i) >> write.bit & 1);
    }
    const Span whole = spanOf(asking.variable);
    if (write.bit >= 0 || elementOf(asking.variable, 0).bit >= 0 || !whole.covers(write.span))
        return false;
    const QByteArray wanted = asking.bytes.mid(write.span.first - whole.first, write.span.bytes);
    const int size = sim::ControllerMemory::elementSize(whole.area);
    for (int i = 0; i < write.span.bytes; ++i) {
        const bool status = size > 1 && (write.span.first + i) % size < size - 2;
        if (!status && wanted.at(i) != write.data.at(i))
            return false;
    }
    return true;
}

QString RequestJudge::writeSent(const ExchangePtr& exchange)
{
    if (exchange->sendings > 1)
        return QString(); // the record holds that nothing has stood between
    int& last = m_lastWriter[exchange->station];
    for (int i = last; i < int(m_askings.size()); ++i) {
        Asking& asking = m_askings[std::size_t(i)];
        if (asking.hasEnded || asking.values.isEmpty() || asking.station != exchange->station ||
            !isPartOf(exchange->asked, asking))
            continue;
        // Its end may be told a moment later, when the next one of the same has been sent.
        const bool isOver =
            std::any_of(asking.frames.begin(), asking.frames.end(), [&](const ExchangePtr& frame) {
                return frame->connection != exchange->connection ||
                       (frame->asked.span.covers(exchange->asked.span) &&
                        frame->asked.bit == exchange->asked.bit);
            });
        if (isOver)
            continue;
        asking.frames.push_back(exchange);
        last = i;
        return QString();
    }
    return QStringLiteral("a write that nobody has asked for, is over or out of turn: ") +
           exchange->frame.toHex(' ');
}

/// What reads nothing that is watched or asked for is to keep up a link where that is due.
bool RequestJudge::isProbeNeeded(const ExchangePtr& exchange)
{
    const Span& span = exchange->asked.span;
    if (span.area != Area::SM || span.first != 0 || span.bytes != 2)
        return false;
    const Connection* const connection = m_record.connection(exchange->station);
    if (m_settings.remoteAccess && connection->frames == 1)
        return true; // in place of a handshake
    // Of several stations all are asked in turn, whatever has happened since the first.
    if (!m_settings.stations.isEmpty())
        return m_settings.probe;
    m_probedAmid = firstOpen(exchange->station);
    return m_settings.probe && !m_values.hasWatched(exchange->station);
}

QString RequestJudge::readSent(const ExchangePtr& exchange)
{
    const auto isAsked = [&](const Asking& asking) {
        return asking.station == exchange->station &&
               spanOf(asking.variable, true).overlaps(exchange->asked.span);
    };
    if (m_values.wasWatched(exchange->station, exchange->asked.span) ||
        std::any_of(m_askings.begin(), m_askings.end(), isAsked) || isProbeNeeded(exchange))
        return QString();
    return QStringLiteral("a read that nobody has asked for: ") + exchange->frame.toHex(' ');
}

QString RequestJudge::sent(const ExchangePtr& exchange)
{
    if (exchange->asked.kind == Asked::Write)
        return writeSent(exchange);
    if (exchange->asked.kind == Asked::Read && exchange->sendings == 1)
        return readSent(exchange);
    return QString();
}

bool RequestJudge::wasRefused(const Asking& asking) const
{
    return std::any_of(asking.frames.begin(), asking.frames.end(), [](const ExchangePtr& frame) {
        return std::any_of(frame->answers.begin(), frame->answers.end(),
                           [](const Answer& answer) { return answer.refused; });
    });
}

/// Told as done: all of it has arrived, exactly.
QString RequestJudge::judgeWritten(const Asking& asking) const
{
    int units = 0;
    for (const ExchangePtr& frame : asking.frames) {
        if (frame->applied == 0)
            return QStringLiteral("told as done, but a part never arrived");
        units += frame->asked.bit >= 0 ? 1 : 8 * frame->asked.span.bytes;
    }
    const bool bits = elementOf(asking.variable, 0).bit >= 0;
    const int wanted = bits ? asking.variable.repeat : 8 * spanOf(asking.variable).bytes;
    return units == wanted ? QString() : QStringLiteral("told as done, but not all was sent");
}

QString RequestJudge::judgeFailed(const Asking& asking, const Result& result) const
{
    const bool isWrite = !asking.values.isEmpty();
    if (!result.value.elements.isEmpty())
        return QStringLiteral("failed, but it has a value");
    if (result.wasSent != (isWrite && !asking.frames.empty()))
        return result.wasSent ? QStringLiteral("told as sent, but it was not")
                              : QStringLiteral("told as not sent, but it was");
    if (result.cause == Cause::Stopped)
        return m_isStopped ? QString() : QStringLiteral("ended as stopped");
    if (result.cause == Cause::Invalid)
        return asking.station == UnknownStation ? QString() : QStringLiteral("told as invalid");
    const Connection* const connection = m_record.connection(asking.station);
    if (result.cause == Cause::Refused && isWrite && wasRefused(asking))
        return QString();
    // It may be told when a new connection has begun.
    if (connection && connection->state == Connection::Open && connection->order < asking.order)
        return QStringLiteral("failed although its link is as good as ever");
    return QString();
}

QString RequestJudge::done(int number, const Result& result, Micros now)
{
    Asking& asking = m_askings[std::size_t(number)];
    const bool isWrite = !asking.values.isEmpty();
    const auto wrong = [&](const QString& what) {
        return QStringLiteral("request %1, %2, %3: %4")
            .arg(number)
            .arg(asking.variable.label(), s7200::describe(result.cause), what);
    };
    if (std::exchange(asking.hasEnded, true))
        return wrong(QStringLiteral("ends twice"));
    --m_open;
    ++ends[std::size_t(result.cause)][!isWrite ? 0 : result.wasSent ? 1 : 2];
    if (isWrite && asking.station != UnknownStation) {
        if (std::exchange(m_lastEnded[asking.station], number) > number)
            return wrong(QStringLiteral("ends behind a later one"));
    }
    QString what;
    if (!result)
        what = judgeFailed(asking, result);
    else if (!isWrite)
        what = m_values.judgeRead(asking.variable, asking.station, result.value, asking.order, now);
    else
        what = judgeWritten(asking);
    return what.isEmpty() ? QString() : wrong(what);
}

} // namespace s7200::simulation
