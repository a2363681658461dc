#include "protocol/Func_Check.h"

#include "core/checked_int.h"
#include "core/siemens_s7_200.h"
#include "protocol/s7_frame.h"

#include <QtEndian>

using namespace cp243;

namespace
{

enum ReplyOffset {
    ReplyTpktLength = 2,
    ReplyPduReference = 11,
    ReplyDataLength = 15,
    ReplyTransportSize = 22,
    ReplyItemLength = 23
};

constexpr uchar LengthInBits = 0x04;

/// One examined byte of a reply: its bits under `mask` must equal `value`.
struct ByteRule {
    int offset;
    uchar mask;
    uchar value;
};

// The read check looks at one bit of the TPDU type where the write check wants all of it, and the
// write check leaves the item return code alone, so a refused write counts as good. Both
// deliberate: docs/oddities.md, Writes.
// clang-format off
const ByteRule ReadRules[] = {
    {0, 0xFF, 0x03}, {1, 0xFF, 0x00},                   // TPKT
    {4, 0xFF, 0x02}, {5, 0x01, 0x00}, {6, 0xFF, 0x80},  // DT TPDU
    {7, 0xFF, 0x32}, {8, 0xFF, 0x03},                   // acknowledgement with data
    {9, 0xFF, 0x00}, {10, 0xFF, 0x00},                  // redundancy identification
    {13, 0xFF, 0x00}, {14, 0xFF, 0x02},                 // parameter length
    {17, 0xFF, 0x00}, {18, 0xFF, 0x00},                 // error class and code
    {19, 0xFF, FunctionRead}, {20, 0xFF, 0x01},         // one item read
    {21, 0xFF, 0xFF},                                   // item return code
};
const ByteRule WriteRules[] = {
    {0, 0xFF, 0x03}, {1, 0xFF, 0x00},                   // TPKT
    {4, 0xFF, 0x02}, {5, 0xFF, 0xF0}, {6, 0xFF, 0x80},  // DT TPDU
    {7, 0xFF, 0x32}, {8, 0xFF, 0x03},                   // acknowledgement with data
    {9, 0xFF, 0x00}, {10, 0xFF, 0x00},                  // redundancy identification
    {13, 0xFF, 0x00}, {14, 0xFF, 0x02},                 // parameter length
    {15, 0xFF, 0x00}, {16, 0xFF, 0x01},                 // data length
    {17, 0xFF, 0x00}, {18, 0xFF, 0x00},                 // error class and code
    {19, 0xFF, FunctionWrite}, {20, 0xFF, 0x01},        // one item written
};
// clang-format on

template <int Size>
bool obeys(const uchar* reply, const ByteRule (&rules)[Size])
{
    for (const ByteRule& rule : rules) {
        if ((reply[rule.offset] & rule.mask) != rule.value)
            return false;
    }
    return true;
}

quint16 read16(const uchar* reply, int offset)
{
    return qFromBigEndian<quint16>(reply + offset);
}

/// Whether TPKT length, data length and item length agree on the payload, and all of it is there.
bool lengthsAgree(const uchar* reply, int received)
{
    const quint16 payload = quint16(read16(reply, ReplyTpktLength) - ReadReplyHeader);
    const quint16 data = quint16(read16(reply, ReplyDataLength) - 4);
    quint16 item = read16(reply, ReplyItemLength);
    if (reply[ReplyTransportSize] == LengthInBits)
        item = quint16(item >> 3);
    return item == payload && payload == data && received - (ReadReplyHeader - 1) > payload;
}

} // namespace

int CheckGetData(QByteArray* reply, int len)
{
    const RW_VAR& request = PLC_driver.protocol_list.at(0).var;
    const int received = reply ? qMin(len, int(reply->size())) : 0;
    const bool isRead = request.origin == 0;
    if (received < (isRead ? ReadReplyHeader : WriteReplyLength))
        return 0;
    const uchar* bytes = reinterpret_cast<const uchar*>(reply->constData());
    if (!(isRead ? obeys(bytes, ReadRules) : obeys(bytes, WriteRules)))
        return 0;
    // A late reply, to an earlier request, carries that one's reference.
    if (read16(bytes, ReplyPduReference) != map_list.value(request.station).pdu_ref)
        return 0;
    if (!isRead)
        return 2;
    return lengthsAgree(bytes, received) ? 1 : 0;
}

unsigned short CalSUM(unsigned char* data, unsigned short len)
{
    unsigned sum = 0;
    for (unsigned i = 0; i < len; ++i)
        sum += data[i];
    return static_cast<unsigned short>(sum);
}

unsigned short CalCRC(unsigned char* data, unsigned short len)
{
    unsigned crc = 0xFFFF;
    for (unsigned i = 0; i < len; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? (crc >> 1) ^ 0xA001 : crc >> 1;
    }
    return static_cast<unsigned short>(crc);
}

int CalLRC(unsigned char* data, unsigned short len)
{
    // Not cut to a byte: 256 where the sum's low byte is 0.
    return 255 - (CalSUM(data, len) & 0xFF) + 1;
}

unsigned short CalXOR(unsigned char* data, unsigned short len)
{
    unsigned result = data[0];
    for (unsigned i = 1; i < len; ++i)
        result ^= data[i];
    return static_cast<unsigned short>(result);
}

int DigitalToASCII(int value)
{
    return clampToInt(qint64(value) + (value <= 9 ? '0' : 'A' - 10));
}

int ASCIIToDigital(int code)
{
    if (code < '0' || code == '@')
        return 0;
    return code < '@' ? code - '0' : code - ('A' - 10);
}
