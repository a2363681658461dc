#include "tests/simulation_record.h"

#include "wire/s7_fields.h"

namespace s7200::simulation
{

namespace
{

constexpr int RemoteTrailingBytes = 2;
constexpr std::size_t Remembered = 400;

void remember(std::deque<ExchangePtr>& list, const ExchangePtr& exchange)
{
    list.push_back(exchange);
    if (list.size() > Remembered)
        list.pop_front();
}

/// A reply to another frame by its reference; who waits goes on waiting.
bool isToAnother(const Exchange& exchange, const QByteArray& frame)
{
    if (exchange.asked.kind == Asked::Connect)
        return false;
    if (wire::tpduType(frame) == wire::Tpdu::ConnectionConfirm)
        return true;
    return wire::isS7Pdu(frame) && exchange.asked.kind != Asked::Setup &&
           wire::wordAt(frame, wire::PduReferenceOffset) != exchange.asked.reference;
}

} // namespace

Record::Record(bool remote, Micros timeout)
    : m_isRemote(remote), m_timeout(timeout), m_stream(remote ? RemoteTrailingBytes : 0)
{
}

QString Record::opens(int station, int connection, Micros now)
{
    Connection& one = m_connections[station];
    const bool inUse = one.number != 0 && one.state != Connection::Ended;
    one = Connection();
    one.number = connection;
    one.station = station;
    one.order = ++m_order;
    one.orderedAt = now;
    return inUse ? QStringLiteral("opens a second connection of station %1").arg(station)
                 : QString();
}

void Record::opened(int station)
{
    m_connections[station].state = Connection::Open;
    ++counts.connections;
}

void Record::openFailed(int station)
{
    m_connections[station].state = Connection::Ended;
    ++counts.noConnection;
}

void Record::lost(int station, Micros now)
{
    m_connections[station].state = Connection::LostByPeer;
    if (m_current && m_current->station == station && m_current->end == Exchange::Waiting)
        end(Exchange::Gone, now);
}

void Record::closes(int station, Micros now)
{
    Connection& one = m_connections[station];
    if (one.state == Connection::Opening && one.number != 0)
        ++counts.noConnection;
    if (m_current && m_current->station == station && m_current->end == Exchange::Waiting)
        end(Exchange::Gone, now);
    one.state = Connection::Ended;
}

QString Record::sends(int station, const QByteArray& frame, Micros now, qint64 wallMs)
{
    Connection& one = m_connections[station];
    if (one.number == 0 || one.state != Connection::Open)
        return QStringLiteral("sends where no connection is");
    if (m_current && m_current->end == Exchange::Waiting)
        return QStringLiteral("sends before the last frame was answered or timed out");
    ++counts.sent;
    ++one.frames;
    const bool repeated = m_current && m_current->station == station && m_current->frame == frame &&
                          m_current->connection == one.number && m_current->end != Exchange::Good;
    if (repeated) {
        ++counts.repeats;
    } else {
        m_current = std::make_shared<Exchange>();
        m_current->order = ++m_order;
        m_current->station = station;
        m_current->connection = one.number;
        m_current->frame = frame;
        m_current->asked = asked(frame, m_isRemote);
        m_current->firstSent = now;
        m_current->firstSentWallMs = wallMs;
        if (m_current->asked.kind == Asked::Write) {
            m_lastWrite = m_order;
            remember(m_writes[station], m_current);
        }
    }
    ++m_current->sendings;
    m_current->lastSent = idleSince = now;
    m_current->end = Exchange::Waiting;
    m_stream.clear();
    m_anything = false;
    if (m_current->asked.kind == Asked::Nothing)
        return QStringLiteral("sends what nobody understands: ") + frame.toHex(' ');
    const Asked::Kind handshake[] = {Asked::Connect, Asked::Setup};
    const bool isHandshake = m_current->asked.kind <= Asked::Setup;
    if (!m_isRemote &&
        (one.frames <= 2 ? m_current->asked.kind != handshake[one.frames - 1] : isHandshake))
        return QStringLiteral("sends a handshake out of turn, or none");
    return QString();
}

void Record::answered(const ExchangePtr& exchange, const Answer& answer)
{
    exchange->applied += answer.applied ? 1 : 0;
    exchange->answers.push_back(answer);
}

void Record::end(Exchange::End how, Micros now, bool isByItem)
{
    m_current->end = how;
    m_current->endedAt = idleSince = now;
    m_current->endOrder = ++m_order;
    m_hasEnded = true;
    if (how == Exchange::Refused)
        ++counts.refused;
    if (how == Exchange::Silence && !m_anything)
        ++counts.timeOuts;
    const bool isGood = how == Exchange::Good || (how == Exchange::Refused && isByItem);
    counts.goodOnce += isGood && m_current->sendings == 1 ? 1 : 0;
    if (how != Exchange::Good)
        return;
    if (m_current->asked.kind >= Asked::Read)
        trips += now - m_current->firstSent;
    if (m_current->asked.kind == Asked::Read)
        remember(m_reads[m_current->station], m_current);
}

/// Decides by what its controller has said to this very frame whether that is a reply to it.
void Record::judgeArrival(const QByteArray& frame, Micros now)
{
    for (const Answer& answer : m_current->answers) {
        if (answer.bytes != frame)
            continue;
        m_current->sample = answer.sample;
        // The driver takes a write for good that was refused by its item.
        const bool isByItem = m_current->asked.kind == Asked::Write &&
                              wire::wordAt(frame, wire::ErrorClassOffset) == 0;
        end(answer.refused ? Exchange::Refused : Exchange::Good, now, isByItem);
        return;
    }
    end(Exchange::Spoiled, now);
}

void Record::brought(int station, const QByteArray& bytes, Micros now)
{
    if (!m_current || m_current->station != station || m_current->end != Exchange::Waiting)
        return;
    m_anything = true;
    m_stream.append(bytes);
    while (m_current->end == Exchange::Waiting) {
        const std::optional<QByteArray> frame = m_stream.takeFrame();
        if (!frame)
            break;
        if (wire::isEmptyDataTpdu(*frame) || (!m_isRemote && isToAnother(*m_current, *frame)))
            continue;
        judgeArrival(*frame, now);
    }
    if (m_current->end == Exchange::Waiting && m_stream.isBroken())
        end(Exchange::Spoiled, now);
}

void Record::timePasses(Micros now)
{
    if (m_current && m_current->end == Exchange::Waiting && now >= m_current->lastSent + m_timeout)
        end(Exchange::Silence, now);
}

bool Record::takeEnd()
{
    return std::exchange(m_hasEnded, false);
}

const Connection* Record::connection(int station) const
{
    const auto found = m_connections.find(station);
    return found == m_connections.end() || found->second.number == 0 ? nullptr : &found->second;
}

const std::deque<ExchangePtr>& Record::reads(int station) const
{
    static const std::deque<ExchangePtr> none;
    const auto found = m_reads.find(station);
    return found == m_reads.end() ? none : found->second;
}

const std::deque<ExchangePtr>& Record::writes(int station) const
{
    static const std::deque<ExchangePtr> none;
    const auto found = m_writes.find(station);
    return found == m_writes.end() ? none : found->second;
}

} // namespace s7200::simulation
