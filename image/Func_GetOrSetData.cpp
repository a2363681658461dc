#include "image/Func_GetOrSetData.h"

#include "core/siemens_s7_200.h"
#include "image/host_bytes.h"
#include "image/image_areas.h"

#include <cstring>

using namespace cp243;

namespace
{

/// The elements of an access that lie wholly inside an area: [first, end).
struct ElementRange {
    qint64 first;
    qint64 end;
};

/// `size` and `start` in bytes (or whatever unit `width` is in).
ElementRange elementsInside(qint64 size, qint64 start, qint64 count, int width)
{
    const qint64 fitting = (size - start) / width;
    const qint64 first = start >= 0 ? 0 : (width - 1 - start) / width;
    return {first, size > start ? qMin(count, fitting) : 0};
}

/// Reads that begin further before an area than it is long read nothing, so that no output grows
/// beyond twice an area.
bool beginsTooFarBefore(qint64 size, qint64 start)
{
    return start < -size;
}

template <typename Element>
void getBits(QByteArray& out, const Element* area, int start, int count)
{
    constexpr int ElementBits = 8 * int(sizeof(Element));
    const qint64 bits = bytesBehind(area) * 8;
    const qint64 end = qMin(qint64(count), bits - start);
    if (end <= 0 || beginsTooFarBefore(bits, start))
        return;
    char* bytes = grown(out, end);
    for (qint64 i = 0; i < end; ++i) {
        const qint64 bit = start + i;
        bytes[i] = bit < 0 ? '\0' : char((area[bit / ElementBits] >> (bit % ElementBits)) & 1);
    }
}

/// Copies elements of `width` bytes from area to output, their bytes reversed.
void getReversed(QByteArray& out, const unsigned char* area, int start, int count, int width)
{
    const qint64 size = bytesBehind(area);
    const ElementRange range = elementsInside(size, start, count, width);
    if (range.first >= range.end || beginsTooFarBefore(size, start))
        return;
    char* bytes = grown(out, range.end * width);
    for (qint64 i = range.first; i < range.end; ++i) {
        const unsigned char* element = area + start + i * width;
        for (int k = 0; k < width; ++k)
            bytes[i * width + k] = char(element[width - 1 - k]);
    }
}

/// Copies elements of `width` bytes from input to area, their bytes reversed; only elements whose
/// bytes are all in the input.
void setReversed(int start, unsigned char* area, const QByteArray& in, int count, int width)
{
    const qint64 available = in.size() / width;
    const ElementRange range =
        elementsInside(bytesBehind(area), start, qMin(qint64(count), available), width);
    for (qint64 i = range.first; i < range.end; ++i) {
        unsigned char* element = area + start + i * width;
        for (int k = 0; k < width; ++k)
            element[k] = static_cast<unsigned char>(in.at(int(i * width + width - 1 - k)));
    }
}

/// Copies the pending request's payload into the area from byte `start` on, as far as the reply
/// holds it and the area goes.
void savePayload(const QByteArray& payload, const Protocol& pending, unsigned char* area,
                 qint64 start)
{
    const qint64 offset = pending.data_offset;
    const qint64 first = qMax(qint64(0), qMax(-start, -offset));
    const qint64 end =
        qMin(qMin(qint64(pending.data_len), payload.size() - offset), bytesBehind(area) - start);
    if (first < end)
        std::memcpy(area + start + first, payload.constData() + offset + first,
                    size_t(end - first));
}

} // namespace

void GetBit_unsigned_char(QByteArray& out, unsigned char* area, int start, int count)
{
    getBits(out, area, start, count);
}

void GetBit_unsigned_short(QByteArray& out, unsigned short* area, int start, int count)
{
    getBits(out, area, start, count);
}

void GetWord_unsigned_char(QByteArray& out, unsigned char* area, int start, int count)
{
    getReversed(out, area, start, count, 2);
}

void Get8BitFromUC(QByteArray& out, unsigned char* area, int start, int count)
{
    const qint64 size = bytesBehind(area);
    const ElementRange range = elementsInside(size, start, count, 1);
    if (range.first >= range.end || beginsTooFarBefore(size, start))
        return;
    char* bytes = grown(out, 2 * range.end);
    for (qint64 i = range.first; i < range.end; ++i) {
        bytes[2 * i] = char(area[start + i]);
        bytes[2 * i + 1] = '\0';
    }
}

void GetWord_unsigned_short(QByteArray& out, unsigned short* area, int start, int count)
{
    const qint64 size = bytesBehind(area) / 2;
    const ElementRange range = elementsInside(size, start, count, 1);
    if (range.first >= range.end || beginsTooFarBefore(size, start))
        return;
    char* bytes = grown(out, 2 * range.end);
    for (qint64 i = range.first; i < range.end; ++i) {
        bytes[2 * i] = char(area[start + i] & 0xFF);
        bytes[2 * i + 1] = char(area[start + i] >> 8);
    }
}

void Get32BitFromUc(QByteArray& out, unsigned char* area, int start, int count)
{
    if (count >= 2) {
        getReversed(out, area, start, count / 2, 4);
        return;
    }
    if (start < 0 || start + qint64(4) > bytesBehind(area))
        return;
    char* bytes = grown(out, 2);
    bytes[0] = char(area[start + 3]);
    bytes[1] = char(area[start + 2]);
}

void SetBit_unsigned_char(int start, unsigned char* area, QByteArray* in, int count)
{
    if (!in)
        return;
    const qint64 bits = bytesBehind(area) * 8;
    const ElementRange range = elementsInside(bits, start, qMin(count, int(in->size())), 1);
    for (qint64 i = range.first; i < range.end; ++i) {
        const qint64 bit = start + i;
        const unsigned mask = 1u << (bit % 8);
        const unsigned before = area[bit / 8];
        area[bit / 8] =
            static_cast<unsigned char>(in->at(int(i)) == 1 ? before | mask : before & ~mask);
    }
}

void SetValue_unsigned_char(int start, unsigned char* area, QByteArray* in, int count)
{
    if (in)
        setReversed(start, area, *in, count, 2);
}

void Set8BitToUC(int start, unsigned char* area, QByteArray* in, int count)
{
    if (in)
        setReversed(start, area, *in, count, 1);
}

void SetValue_unsigned_short(int start, unsigned short* area, QByteArray* in, int count)
{
    if (!in)
        return;
    const ElementRange range =
        elementsInside(bytesBehind(area) / 2, start, qMin(count, int(in->size()) / 2), 1);
    for (qint64 i = range.first; i < range.end; ++i) {
        const unsigned low = inputByte(*in, int(2 * i));
        const unsigned high = inputByte(*in, int(2 * i + 1));
        area[start + i] = static_cast<unsigned short>(low | (high << 8));
    }
}

void Set32BitToUC(int start, unsigned char* area, QByteArray* in, int count)
{
    if (!in)
        return;
    if (count >= 2) {
        setReversed(start, area, *in, count / 2, 4);
        return;
    }
    // The high-order word, where Get32BitFromUc gives the low-order one, and whether or not the
    // input holds it. Both deliberate: docs/oddities.md, Values.
    if (start < 0 || start + qint64(2) > bytesBehind(area))
        return;
    area[start] = inputByte(*in, 1);
    area[start + 1] = inputByte(*in, 0);
}

void SaveWord_unsigned_char(QByteArray* payload, unsigned char* area)
{
    if (!payload || PLC_driver.protocol_list.isEmpty())
        return;
    const Protocol& pending = PLC_driver.protocol_list.at(0);
    savePayload(*payload, pending, area, pending.var.address);
}

void SaveBit_unsigned_char(QByteArray* payload, unsigned char* area)
{
    if (!payload || PLC_driver.protocol_list.isEmpty())
        return;
    const Protocol& pending = PLC_driver.protocol_list.at(0);
    savePayload(*payload, pending, area, pending.var.address / 8);
}

void SaveWord_unsigned_short(QByteArray* payload, unsigned short* area)
{
    if (!payload || PLC_driver.protocol_list.isEmpty())
        return;
    const Protocol& pending = PLC_driver.protocol_list.at(0);
    const qint64 offset = pending.data_offset;
    if (offset < 0)
        return;
    const qint64 pairs = qMin(qint64(pending.data_len), payload->size() - offset) / 2;
    const ElementRange range = elementsInside(bytesBehind(area) / 2, pending.var.address, pairs, 1);
    for (qint64 k = range.first; k < range.end; ++k) {
        const unsigned high = inputByte(*payload, int(offset + 2 * k));
        const unsigned low = inputByte(*payload, int(offset + 2 * k + 1));
        area[pending.var.address + k] = static_cast<unsigned short>((high << 8) | low);
    }
}
