#include "wire/tpkt_reassembler.h"

#include "wire/s7_fields.h"

namespace s7200::wire
{

namespace
{

constexpr int Version = 3;

} // namespace

TpktReassembler::TpktReassembler(int trailingBytes) : m_trailing(trailingBytes) {}

void TpktReassembler::append(const QByteArray& bytes)
{
    if (m_broken)
        return;
    if (bytes.size() > MaxBufferedBytes - m_waiting.size()) {
        breakOff();
        return;
    }
    m_waiting.append(bytes);
    checkHead();
}

std::optional<QByteArray> TpktReassembler::takeFrame()
{
    const int length = headLength() + m_trailing;
    if (m_waiting.size() < TpktHeaderLength || m_waiting.size() < length)
        return std::nullopt;
    const QByteArray frame = m_waiting.take(length);
    checkHead();
    return frame;
}

bool TpktReassembler::isBroken() const
{
    return m_broken;
}

bool TpktReassembler::isMidFrame() const
{
    return !m_waiting.isEmpty();
}

void TpktReassembler::clear()
{
    m_waiting.clear();
    m_broken = false;
}

// Looks as early as a byte allows: a peer that speaks another protocol may never send four bytes.
void TpktReassembler::checkHead()
{
    const bool wrongVersion = !m_waiting.isEmpty() && m_waiting.at(0) != Version;
    if (wrongVersion || (m_waiting.size() >= TpktHeaderLength && headLength() < ShortestTpkt))
        breakOff();
}

int TpktReassembler::headLength() const
{
    return m_waiting.at(TpktLengthOffset) << 8 | m_waiting.at(TpktLengthOffset + 1);
}

void TpktReassembler::breakOff()
{
    m_waiting.clear();
    m_broken = true;
}

} // namespace s7200::wire
