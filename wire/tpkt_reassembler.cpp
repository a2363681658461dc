#include "wire/tpkt_reassembler.h"

#include <QtEndian>

namespace
{

constexpr int HeaderLength = 4;
constexpr int LengthOffset = 2;
constexpr char Version = 3;
// RFC 1006: header and the smallest TPDU, three bytes.
constexpr int ShortestPacket = 7;

} // namespace

TpktReassembler::TpktReassembler(int trailingBytes) : trailing(trailingBytes) {}

void TpktReassembler::append(const QByteArray& bytes)
{
    if (broken)
        return;
    if (bytes.size() > MaxBufferedBytes - buffer.size()) {
        broken = true;
        buffer.clear();
        return;
    }
    buffer.append(bytes);
    checkHead();
}

bool TpktReassembler::takeFrame(QByteArray* frame)
{
    if (buffer.size() < HeaderLength || buffer.size() < headLength() + trailing)
        return false;
    const int length = headLength() + trailing;
    *frame = buffer.left(length);
    buffer.remove(0, length);
    checkHead();
    return true;
}

bool TpktReassembler::isBroken() const
{
    return broken;
}

bool TpktReassembler::isMidFrame() const
{
    return !buffer.isEmpty();
}

void TpktReassembler::clear()
{
    buffer.clear();
    broken = false;
}

// Looks as early as a byte allows: a peer that speaks another protocol may never send four bytes.
void TpktReassembler::checkHead()
{
    const bool wrongVersion = !buffer.isEmpty() && buffer.at(0) != Version;
    if (wrongVersion || (buffer.size() >= HeaderLength && headLength() < ShortestPacket)) {
        broken = true;
        buffer.clear();
    }
}

int TpktReassembler::headLength() const
{
    return qFromBigEndian<quint16>(buffer.constData() + LengthOffset);
}

bool isEmptyDataTpdu(const QByteArray& frame)
{
    return frame.size() >= ShortestPacket &&
           frame.startsWith(QByteArray::fromRawData("\x03\x00\x00\x07\x02\xF0", 6));
}
