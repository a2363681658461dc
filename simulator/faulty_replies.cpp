#include "simulator/faulty_replies.h"

#include <utility>

namespace s7200::sim
{

namespace
{

FaultMoment momentOf(RequestSummary::Kind kind)
{
    switch (kind) {
    case RequestSummary::Connect:
        return FaultMoment::Connect;
    case RequestSummary::Setup:
        return FaultMoment::Setup;
    default:
        return FaultMoment::Job;
    }
}

Refusal refusalFor(FaultKind fault)
{
    if (fault == FaultKind::ErrorClass || fault == FaultKind::RefuseSetup)
        return Refusal::Job;
    return fault == FaultKind::ItemError ? Refusal::Item : Refusal::None;
}

/// True for faults after which the client asks again for what it has not got.
bool losesReply(FaultKind fault)
{
    switch (fault) {
    case FaultKind::Lost:
    case FaultKind::Late:
    case FaultKind::Truncated:
    case FaultKind::WrongReference:
    case FaultKind::WrongLength:
    case FaultKind::CloseMidFrame:
    case FaultKind::Disconnect:
        return true;
    default:
        return false;
    }
}

} // namespace

FaultyReplies::FaultyReplies(RequestHandler* handler, FaultInjector* faults, int trailingBytes)
    : m_handler(handler), m_faults(faults), m_trailingBytes(trailingBytes)
{
}

FaultyReplies::Answer FaultyReplies::serve(const QByteArray& request)
{
    Answer answer;
    const RequestSummary summary = m_handler->parse(request);
    if (summary.kind != RequestSummary::Other)
        answer.fault = m_faults->choose(momentOf(summary.kind), summary.touched);
    const QByteArray reply = m_handler->answer(refusalFor(answer.fault));
    const QByteArray late = std::exchange(m_late, {});
    if (!late.isEmpty())
        answer.pieces.append(late);
    if (!reply.isEmpty())
        add(answer.fault, reply, &answer);
    answer.closes = answer.closes || m_handler->isBroken();
    return answer;
}

void FaultyReplies::add(FaultKind fault, const QByteArray& reply, Answer* answer)
{
    const QByteArray previous = std::exchange(m_previous, reply);
    if (fault == FaultKind::Coalesced && previous.isEmpty())
        fault = FaultKind::None;
    if (fault != FaultKind::None)
        m_faults->count(fault);
    if (losesReply(fault))
        m_handler->replySpoiled();
    const QByteArray bytes = m_faults->spoil(fault, reply);
    switch (fault) {
    case FaultKind::Lost:
        break;
    case FaultKind::Late:
        m_late = bytes;
        break;
    case FaultKind::Doubled:
        answer->pieces << bytes << bytes;
        break;
    case FaultKind::EmptyTpduFirst:
        answer->pieces << QByteArray("\x03\x00\x00\x07\x02\xF0\x00", 7) +
                              QByteArray(m_trailingBytes, '\0')
                       << bytes;
        break;
    case FaultKind::Split:
        answer->isSplit = true;
        for (const char byte : bytes)
            answer->pieces.append(QByteArray(1, byte));
        break;
    case FaultKind::Coalesced:
        answer->pieces.append(bytes + previous);
        break;
    default:
        answer->closes = fault == FaultKind::CloseMidFrame;
        answer->pieces.append(bytes);
    }
}

} // namespace s7200::sim
