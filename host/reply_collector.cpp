#include "host/reply_collector.h"

#include "wire/s7_fields.h"

namespace s7200
{

namespace
{

/// Bytes that a remote peer's reply has beyond the length in its TPKT header.
constexpr int RemoteTrailingBytes = 2;
/// More than any reply has: all of it is only wanted when it makes no sense.
constexpr int MostKeptBytes = 4096;

/// True for a reply to an earlier frame. The setup job is left out: its reply follows a connection
/// confirm on a fresh connection, and modules differ in the reference that they answer with.
bool answersAnother(const QByteArray& frame, const QByteArray& reply)
{
    if (!wire::isS7Pdu(frame))
        return false;
    if (wire::tpduType(reply) == wire::Tpdu::ConnectionConfirm)
        return true;
    return wire::isS7Pdu(reply) &&
           wire::byteAt(frame, wire::JobFunctionOffset) !=
               int(wire::Function::SetupCommunication) &&
           wire::wordAt(frame, wire::PduReferenceOffset) !=
               wire::wordAt(reply, wire::PduReferenceOffset);
}

} // namespace

ReplyCollector::ReplyCollector(bool remote)
    : m_remote(remote), m_reassembler(remote ? RemoteTrailingBytes : 0)
{
}

void ReplyCollector::begin(const QByteArray& frame)
{
    m_awaiting = true;
    m_frame = frame;
    m_reassembler.clear();
    m_received.clear();
    m_mismatched.clear();
}

void ReplyCollector::append(const QByteArray& bytes)
{
    if (!m_awaiting)
        return;
    m_reassembler.append(bytes);
    if (m_received.size() < MostKeptBytes)
        m_received += bytes.left(MostKeptBytes - m_received.size());
}

std::optional<QByteArray> ReplyCollector::takeReply()
{
    while (m_awaiting) {
        std::optional<QByteArray> frame = m_reassembler.takeFrame();
        if (!frame)
            return std::nullopt;
        if (wire::isEmptyDataTpdu(*frame))
            continue;
        if (m_remote || !answersAnother(m_frame, *frame)) {
            m_awaiting = false;
            return frame;
        }
        m_mismatched = *frame;
    }
    return std::nullopt;
}

bool ReplyCollector::isHopeless() const
{
    return m_awaiting && m_reassembler.isBroken();
}

QByteArray ReplyCollector::whatCameInstead()
{
    m_awaiting = false;
    const bool partial = m_reassembler.isBroken() || m_reassembler.isMidFrame();
    return partial ? m_received : m_mismatched;
}

} // namespace s7200
