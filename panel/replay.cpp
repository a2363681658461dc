#include "panel/replay.h"

#include "host/reply_judgement.h"
#include "panel/frame_text.h"
#include "wire/s7_fields.h"

#include <siemens_s7_200_cp243/register_types.h>

#include <algorithm>

namespace s7200::panel
{

using namespace s7200::wire;

namespace
{

constexpr int LastReference = 65535; // 1 follows
constexpr int ProbeBytes = 2;        // of SMW0
constexpr int SetupReplyLength = 27;

bool isHandshake(const QByteArray& frame)
{
    return isConnectionRequest(frame) || isSetup(frame);
}

int followingReference(int reference)
{
    return reference >= LastReference ? 1 : reference + 1;
}

/// All of a job but its reference, which depends on what went before.
QByteArray contentOf(const QByteArray& job)
{
    return job.mid(ParameterLengthOffset);
}

} // namespace

bool ReplayStep::isDifferent() const
{
    return kind == OutOfStep || kind == NotDrivers || (kind == Compared && expected != captured);
}

int ReplayStep::firstDifference() const
{
    const int shorter = int(std::min(expected.size(), captured.size()));
    int offset = 0;
    while (offset < shorter && expected.at(offset) == captured.at(offset))
        ++offset;
    return offset;
}

Replay::Replay(DriverDesk& desk, const QVector<Variable>& variables, const Report& report)
    : m_desk(desk), m_variables(variables), m_report(report)
{
}

const std::map<int, int>& Replay::results() const
{
    return m_results;
}

bool Replay::run(const Conversation& conversation, int mostDifferences)
{
    m_conversation = conversation;
    for (const Exchange& exchange : conversation.exchanges) {
        if (!isConnectionRequest(exchange.request))
            continue;
        const QByteArray parameters = exchange.request.mid(CotpParametersOffset);
        m_desk.setTsaps(tsapParameter(parameters, CallingTsap).value_or(0),
                        tsapParameter(parameters, CalledTsap).value_or(0));
        break;
    }
    for (const Exchange& exchange : conversation.exchanges) {
        if (isSetup(exchange.request) && exchange.reply.size() == SetupReplyLength)
            m_desk.setPdu(wordAt(exchange.reply, AckPduLengthOffset));
    }
    if (!m_variables.isEmpty())
        m_desk.watch(m_variables);
    for (int i = 0; i < int(conversation.exchanges.size()); ++i) {
        play(i);
        if (m_differences >= mostDifferences)
            return false;
    }
    return true;
}

void Replay::play(int index)
{
    const Exchange& exchange = m_conversation.exchanges.at(index);
    ReplayStep step;
    step.number = exchange.number;
    step.captured = exchange.request;
    if (!isDrivers(exchange.request) ||
        (isConnectionRequest(exchange.request) && !loseLink(index))) {
        step.kind = ReplayStep::NotDrivers;
        tell(step);
        return;
    }
    const Protocol* pending = next(index);
    if (!isHandshake(exchange.request) || index == 0) {
        const bool anew = pending != nullptr && isHandshake(pending->frame) &&
                          pending->frame.at(TpduTypeOffset) != exchange.request.at(TpduTypeOffset);
        // A capture may begin amid a connection.
        if (anew && index > 0 && !m_outOfStep) {
            step.kind = ReplayStep::OutOfStep;
            step.expected = pending->frame;
            tell(step);
            step.kind = ReplayStep::Compared;
        }
        if ((anew || m_outOfStep) && fallIntoStep(index))
            pending = next(index);
    }
    m_outOfStep = false;
    if (pending == nullptr)
        return;
    step.expected = pending->frame;
    const bool isLast = index + 1 == int(m_conversation.exchanges.size());
    if (isLast && m_conversation.endsUnanswered) {
        tell(step); // how it ended nobody knows
        return;
    }
    step.late = isLate(index, *pending);
    give(step, *pending, step.late ? QByteArray() : exchange.reply);
}

bool Replay::isDrivers(const QByteArray& request) const
{
    return isHandshake(request) || requestOf(request).has_value();
}

/// Sees to it that the driver has something to ask for.
void Replay::prepare(int index)
{
    if (m_repeats)
        return;
    const QVector<Exchange>& exchanges = m_conversation.exchanges;
    if (!m_variables.isEmpty()) {
        // The list asks by itself, but for writes and for what it must not hold.
        const std::optional<RW_VAR> asked = requestOf(exchanges.at(index).request);
        if (!m_isOpen && asked && (asked->origin != 0 || m_desk.isReadApart(ofStation(*asked))))
            m_isOpen = addRequest(exchanges.at(index).request);
        return;
    }
    for (int i = index; i < int(exchanges.size()) && !m_isOpen; ++i) {
        if (!isHandshake(exchanges.at(i).request))
            m_isOpen = addRequest(exchanges.at(i).request);
    }
    if (!m_isOpen)
        addProbe();
}

RW_VAR Replay::ofStation(RW_VAR request) const
{
    request.station = m_desk.comInfo.default_station;
    return request;
}

bool Replay::addRequest(const QByteArray& job)
{
    std::optional<RW_VAR> request = requestOf(job);
    if (!request)
        return false;
    *request = ofStation(*request);
    request->link_id = m_desk.comInfo.link_id;
    if (request->origin != 0)
        m_desk.driver.AddListWriteVar(&*request, List_Append);
    else
        m_desk.driver.AddListOnceReadVar(&*request, List_Append);
    return true;
}

void Replay::addProbe()
{
    RW_VAR probe;
    probe.reg_type = Type_SMW;
    probe.count = ProbeBytes;
    probe.station = m_desk.comInfo.default_station;
    probe.link_id = m_desk.comInfo.link_id;
    m_desk.driver.AddListOnceReadVar(&probe, List_Append);
    m_isOpen = true;
}

const Protocol* Replay::next(int index)
{
    prepare(index);
    return m_desk.pending();
}

/// Before the capture connects anew: whatever the driver asks for until it does so as well was not
/// sent, since there was no connection.
bool Replay::loseLink(int index)
{
    for (int i = 0; i <= m_desk.comInfo.retry_limit + 2; ++i) {
        const Protocol* pending = next(index);
        if (pending == nullptr)
            return false;
        if (isConnectionRequest(pending->frame)) {
            if (!m_variables.isEmpty())
                m_desk.watch(m_variables); // a controller object begins its list again
            return true;
        }
        ReplayStep step;
        step.kind = ReplayStep::NotSent;
        step.number = m_conversation.exchanges.at(index).number;
        step.expected = pending->frame;
        give(step, *pending, QByteArray());
    }
    return false;
}

/// Brings the driver to where the capture is, by replies that nobody recorded.
bool Replay::fallIntoStep(int index)
{
    const QByteArray& wanted = m_conversation.exchanges.at(index).request;
    const Protocol* pending = next(index);
    while (pending != nullptr && isHandshake(pending->frame) &&
           !(isSetup(wanted) && isSetup(pending->frame))) {
        m_desk.reply(m_desk.perfectReply(*pending));
        pending = next(index);
    }
    if (pending == nullptr || isSetup(wanted))
        return pending != nullptr;
    const int reference = wordAt(wanted, PduReferenceOffset);
    if (wordAt(pending->frame, PduReferenceOffset) == reference &&
        contentOf(pending->frame) == contentOf(wanted))
        return true;
    if (m_variables.isEmpty() || isWriteJob(wanted))
        return countTo(reference);
    const int position = positionInList(wanted);
    const int before = (reference - position - 1 + LastReference) % LastReference + 1;
    m_desk.watch({});
    const bool counted = countTo(before);
    m_desk.watch(m_variables);
    for (int i = 0; i < position && counted; ++i) {
        pending = m_desk.pending();
        m_desk.reply(m_desk.perfectReply(*pending));
    }
    return counted;
}

/// Where in the driver's own list a read stands; 0 if it is not in it.
int Replay::positionInList(const QByteArray& job)
{
    m_isOpen = m_repeats = false;
    m_desk.reply(m_desk.perfectReply(*m_desk.pending()));
    const int listed = m_desk.watch(m_variables);
    int position = 0;
    for (int i = 0; i < listed; ++i) {
        const Protocol* pending = m_desk.pending();
        if (contentOf(pending->frame) == contentOf(job))
            position = i;
        m_desk.reply(m_desk.perfectReply(*pending));
    }
    return position;
}

/// Until the next new request carries `reference`.
bool Replay::countTo(int reference)
{
    for (int i = 0; i <= LastReference; ++i) {
        const Protocol* pending = m_desk.pending();
        if (pending == nullptr) {
            addProbe();
            pending = m_desk.pending();
        }
        const int current = wordAt(pending->frame, PduReferenceOffset);
        m_desk.reply(m_desk.perfectReply(*pending));
        m_isOpen = m_repeats = false;
        if (followingReference(current) == reference)
            return true;
    }
    return false;
}

/// A good reply to a request that was then sent again came too late for its sender.
bool Replay::isLate(int index, const Protocol& pending) const
{
    const Exchange& exchange = m_conversation.exchanges.at(index);
    if (index + 1 >= int(m_conversation.exchanges.size()) || exchange.reply.isEmpty())
        return false;
    const Exchange& following = m_conversation.exchanges.at(index + 1);
    const SentFrame sent{pending.frame, pending.reply_len, false};
    return following.connection == exchange.connection && following.request == exchange.request &&
           !judgeReply(sent, exchange.reply);
}

void Replay::give(ReplayStep step, const Protocol& pending, const QByteArray& reply)
{
    const bool handshake = isHandshake(pending.frame);
    step.reply = reply;
    step.replyLength = pending.reply_len;
    step.result = m_desk.reply(reply);
    ++m_results[step.result];
    if (!handshake) {
        m_repeats = step.result == Result_WillRetry;
        m_isOpen = m_isOpen && m_repeats;
    }
    tell(step);
}

void Replay::tell(const ReplayStep& step)
{
    if (step.isDifferent()) {
        ++m_differences;
        m_outOfStep = true;
    }
    m_report(step);
}

} // namespace s7200::panel
