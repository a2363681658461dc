#include "image/Func_GetOrSetData.h"

#include "core/checked_int.h"
#include <siemens_s7_200_cp243/host_interface.h>
#include "core/register_properties.h"
#include "core/shared_word.h"
#include "core/siemens_s7_200.h"
#include "image/Func_DealData.h"
#include "image/image_areas.h"
#include "varlists/Func_Initi.h"

#include <QMutexLocker>

#include <cstring>

using namespace cp243;

namespace
{

constexpr int WriteOrigin = 1;

/// Most elements of one write request, which is what the 16-bit length of an item can name, and
/// most requests of one host write. Keeps an absurd count from allocating and looping in
/// proportion.
constexpr int MostWriteElements = 0xFFFF;
constexpr int MostWriteRequests = 0xFFFF;

/// One image area as it lies in the driver object.
struct AreaBytes {
    const void* begin;
    qint64 bytes;
};

/// Bytes from `pointer` to the end of the image area that it points into.
qint64 bytesBehind(const void* pointer)
{
    const Siemens_S7_200& image = PLC_driver;
    const AreaBytes areas[AreaCount] = {
        {image.V_area, sizeof image.V_area},     {image.I_area, sizeof image.I_area},
        {image.Q_area, sizeof image.Q_area},     {image.M_area, sizeof image.M_area},
        {image.S_area, sizeof image.S_area},     {image.SM_area, sizeof image.SM_area},
        {image.AIW_area, sizeof image.AIW_area}, {image.AQW_area, sizeof image.AQW_area},
        {image.TV_area, sizeof image.TV_area},   {image.CV_area, sizeof image.CV_area},
        {image.T_bits, sizeof image.T_bits},     {image.C_bits, sizeof image.C_bits}};
    const quintptr at = quintptr(pointer);
    for (const AreaBytes& area : areas) {
        const quintptr begin = quintptr(area.begin);
        if (at >= begin && at < begin + quintptr(area.bytes))
            return qint64(begin) + area.bytes - qint64(at);
    }
    return MaxInt; // not the image: the caller answers for its memory
}

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

/// The output's bytes once it holds at least `size`; what is added is 0.
char* grown(QByteArray& out, qint64 size)
{
    const int before = int(out.size());
    if (before < size) {
        out.resize(int(size));
        std::memset(out.data() + before, 0, size_t(size - before));
    }
    return out.data();
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

/// Input byte, 0 beyond the end.
unsigned char inputByte(const QByteArray& in, int index)
{
    return index < in.size() ? static_cast<unsigned char>(in.at(index)) : 0;
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

// Extend list

/// The value of one element; null for an address that cannot be named.
QByteArray* extendValue(int station, int keyType, qint64 address)
{
    if (!isExtendAddress(address))
        return nullptr;
    const int index = ExtendFindSameVar(station, keyType, int(address));
    return &PLC_driver.extend_list[index].value;
}

/// First value byte of one element, 0 for one that holds none.
char extendByte(int station, int keyType, qint64 address)
{
    const QByteArray* value = extendValue(station, keyType, address);
    return value && !value->isEmpty() ? value->at(0) : '\0';
}

void setExtendValue(int station, int keyType, qint64 address, const char* bytes, int size)
{
    if (QByteArray* value = extendValue(station, keyType, address))
        *value = QByteArray(bytes, size);
}

/// The stored elements of one kind at one station, as the host's value read sees them.
class ExtendReader
{
public:
    ExtendReader(QByteArray& out, int station, int keyType, qint64 address)
        : m_out(out), m_station(station), m_keyType(keyType), m_address(address)
    {
    }

    void bits(int count)
    {
        const qint64 end = inRange(count, 1);
        for (qint64 i = 0; i < end; ++i) {
            const qint64 bit = m_address + i;
            if (isExtendAddress(bit / 8))
                put(i, char((byteAt(bit / 8) >> (bit % 8)) & 1));
        }
    }

    /// Two bytes per byte: the byte, then 0.
    void widenedBytes(int count)
    {
        const qint64 end = inRange(count, 1);
        for (qint64 i = 0; i < end && isExtendAddress(m_address + i); ++i) {
            put(2 * i, byteAt(m_address + i));
            put(2 * i + 1, '\0');
        }
    }

    /// Elements of `width` bytes, most significant first in the list.
    void elements(qint64 count, int width)
    {
        const qint64 end = inRange(count, width);
        for (qint64 i = 0; i < end; ++i) {
            const qint64 first = m_address + i * width;
            if (!isExtendAddress(first + width - 1))
                break;
            for (int k = 0; k < width; ++k)
                put(i * width + k, byteAt(first + width - 1 - k));
        }
    }

    void doubleWords(int count)
    {
        if (count >= 2) {
            elements(count / 2, 4);
        } else if (isExtendAddress(m_address + 3)) {
            put(0, byteAt(m_address + 3));
            put(1, byteAt(m_address + 2));
        }
    }

    /// Timer and counter values; an element that holds fewer than two bytes gives zeros.
    void values(int count)
    {
        const qint64 end = inRange(count, 1);
        for (qint64 k = 0; k < end; ++k) {
            const QByteArray* value = extendValue(m_station, m_keyType, m_address + k);
            if (!value)
                break;
            const bool whole = value->size() >= 2;
            const char low = whole ? value->at(0) : '\0';
            const char high = whole ? value->at(1) : '\0';
            put(2 * k, low);
            put(2 * k + 1, high);
        }
    }

private:
    static qint64 inRange(qint64 count, int width)
    {
        return qMin(count, qint64(MostExtendLookups / width));
    }

    char byteAt(qint64 address) const
    {
        return extendByte(m_station, m_keyType, address);
    }

    void put(qint64 index, char byte)
    {
        grown(m_out, index + 1)[index] = byte;
    }

    QByteArray& m_out;
    int m_station;
    int m_keyType;
    qint64 m_address;
};

void readExtendList(QByteArray& out, int regType, int station, int address, int count)
{
    const RegisterTypeInfo* type = registerTypeInfo(regType);
    // Codes outside the table read as words here, where the image reads nothing.
    const int keyType = type ? type->wordType : regType;
    ExtendReader reader(out, station, keyType, address);
    switch (type ? type->width : Width::Word) {
    case Width::Bit:
        reader.bits(count);
        break;
    case Width::Byte:
        reader.widenedBytes(count);
        break;
    case Width::Word:
    case Width::AnalogWord:
        reader.elements(count, 2);
        break;
    case Width::DoubleWord:
        reader.doubleWords(count);
        break;
    case Width::TimerBit:
    case Width::CounterBit:
        // The bits do not end the read: the values go over them, and hosts expect two bytes each.
        reader.bits(count);
        reader.values(count);
        break;
    case Width::Timer:
    case Width::Counter:
        reader.values(count);
        break;
    }
}

void readImage(QByteArray& out, int regType, int address, int count)
{
    const RegisterTypeInfo* type = registerTypeInfo(regType);
    if (!type)
        return;
    switch (type->width) {
    case Width::Bit:
    case Width::TimerBit:
    case Width::CounterBit:
        GetBit_unsigned_char(out, byteArea(type->area), address, count);
        break;
    case Width::Byte:
        Get8BitFromUC(out, byteArea(type->area), address, count);
        break;
    case Width::Word:
    case Width::AnalogWord:
        GetWord_unsigned_char(out, byteArea(type->area), address, count);
        break;
    case Width::DoubleWord:
        Get32BitFromUc(out, byteArea(type->area), address, count);
        break;
    case Width::Timer:
        GetWord_unsigned_short(out, PLC_driver.TV_area, address, count);
        break;
    case Width::Counter:
        GetWord_unsigned_short(out, PLC_driver.CV_area, address, count);
        break;
    }
}

void writeImage(RW_VAR& var)
{
    const RegisterTypeInfo* type = registerTypeInfo(var.reg_type);
    if (!type)
        return;
    switch (type->width) {
    case Width::Bit:
        SetBit_unsigned_char(var.address, byteArea(type->area), &var.value, var.count);
        break;
    case Width::Byte:
        Set8BitToUC(var.address, byteArea(type->area), &var.value, var.count);
        break;
    case Width::Word:
    case Width::AnalogWord:
        SetValue_unsigned_char(var.address, byteArea(type->area), &var.value, var.count);
        break;
    case Width::DoubleWord:
        // ID is the one input type that a write leaves alone; peers in the field rely on IW and I
        // being set and ID not.
        if (type->area != Area::I)
            Set32BitToUC(var.address, byteArea(type->area), &var.value, var.count);
        break;
    case Width::Timer:
        SetValue_unsigned_short(var.address, PLC_driver.TV_area, &var.value, var.count);
        break;
    case Width::Counter:
        SetValue_unsigned_short(var.address, PLC_driver.CV_area, &var.value, var.count);
        break;
    case Width::TimerBit:
    case Width::CounterBit:
        break;
    }
}

// Host writes into the extend list

void extendBits(const RW_VAR& var, int keyType)
{
    const int end = qMin(qMin(var.count, int(var.value.size())), MostExtendLookups);
    for (int i = 0; i < end; ++i) {
        const qint64 bit = qint64(var.address) + i;
        if (bit < 0)
            continue;
        const unsigned mask = 1u << (bit % 8);
        const unsigned before =
            static_cast<unsigned char>(extendByte(var.station, keyType, bit / 8));
        const char after = char(var.value.at(i) == 1 ? before | mask : before & ~mask);
        setExtendValue(var.station, keyType, bit / 8, &after, 1);
    }
}

void extendWords(const RW_VAR& var, int keyType)
{
    // The limit is twice the word count, so a value longer than the count is stored beyond it;
    // hosts in the field rely on that.
    const qint64 pairs = qMin(2 * qint64(var.count), qint64(var.value.size() / 2));
    const qint64 end = qMin(pairs, qint64(MostExtendLookups / 2));
    for (qint64 j = 0; j < end; ++j) {
        const char* pair = var.value.constData() + 2 * j;
        setExtendValue(var.station, keyType, var.address + 2 * j, pair + 1, 1);
        setExtendValue(var.station, keyType, var.address + 2 * j + 1, pair, 1);
    }
}

void extendVBytes(const RW_VAR& var, int keyType)
{
    // The low byte of each two-byte element, where the image takes the bytes as they stand; 0 for
    // an element that a short value lacks while its index is still below the value's size.
    const int end = qMin(qMin(var.count, int(var.value.size())), MostExtendLookups);
    for (int i = 0; i < end; ++i) {
        const char byte = char(inputByte(var.value, 2 * i));
        setExtendValue(var.station, keyType, qint64(var.address) + i, &byte, 1);
    }
}

void extendDoubleWords(RW_VAR& var, int keyType)
{
    const qint64 words = qMin(var.count, MostWriteElements + 1);
    while (var.value.size() <= (words + 1) / 2 * 4)
        var.value.append('\0');
    const qint64 end = qMin(words / 2, qint64(MostExtendLookups / 4));
    for (qint64 j = 0; j < end && 4 * j + 3 < var.value.size(); ++j) {
        const char* bytes = var.value.constData() + 4 * j;
        for (int k = 0; k < 4; ++k)
            setExtendValue(var.station, keyType, var.address + 4 * j + k, bytes + 3 - k, 1);
    }
}

void extendValues(const RW_VAR& var, int keyType)
{
    const int end = qMin(qMin(var.count, int(var.value.size()) / 2), MostExtendLookups);
    for (int k = 0; k < end; ++k)
        setExtendValue(var.station, keyType, qint64(var.address) + k, var.value.constData() + 2 * k,
                       2);
}

void writeExtendList(RW_VAR& var)
{
    const RegisterTypeInfo* type = registerTypeInfo(var.reg_type);
    const int keyType = type ? type->wordType : var.reg_type;
    switch (type ? type->width : Width::Word) {
    case Width::Bit:
        extendBits(var, keyType);
        break;
    case Width::Byte:
        extendVBytes(var, keyType);
        break;
    case Width::DoubleWord:
        // An ID goes with the words, under its own code. An SMD is kept under its own code too,
        // where no read looks for it; peers in the field rely on reads not showing it.
        if (var.reg_type == Type_ID)
            extendWords(var, Type_ID);
        else
            extendDoubleWords(var, var.reg_type == Type_SMD ? int(Type_SMD) : keyType);
        break;
    case Width::Timer:
    case Width::Counter:
        extendValues(var, keyType);
        break;
    case Width::Word:
    case Width::AnalogWord:
    case Width::TimerBit:
    case Width::CounterBit:
        extendWords(var, keyType);
        break;
    }
}

// Host writes for the controller

/// `size` bytes of the host's value from `from` on, 0 for those beyond its end.
QByteArray valuePiece(const QByteArray& data, qint64 from, qint64 size)
{
    QByteArray piece = from < data.size() ? data.mid(int(from), int(size)) : QByteArray();
    grown(piece, size);
    return piece;
}

/// How a host write is cut into requests.
struct WriteUnits {
    qint64 elements;
    qint64 perRequest;
    int addressStep; ///< Address units per element.
    int valueBytes;  ///< Host bytes per element.
};

WriteUnits writeUnits(const RegisterTypeInfo& type, int count)
{
    const qint64 limit = PLC_driver.com_info->block_length_limit;
    const bool inPieces = limit > 0 && limit <= MostWriteElements;
    const qint64 most = inPieces ? limit * MostWriteRequests : qint64(MostWriteElements);
    const qint64 elements = qMin(qint64(count), most);
    switch (type.width) {
    case Width::Bit:
        return {qMin(count, MostWriteRequests), 1, 1, 1};
    case Width::DoubleWord:
        return {(elements + 1) & ~qint64(1), limit, 2, 2};
    case Width::Word:
    case Width::AnalogWord:
        return {elements, limit, 2, 2};
    default:
        return {elements, limit, 1, 2};
    }
}

/// Queues the write piece by piece; while the link has failed the image takes the value at once,
/// since no frame will be built to bring it there. Returns the size of the write queue.
int queuePieces(RW_VAR& request, const RegisterTypeInfo& type, const QByteArray& data, int count)
{
    const WriteUnits units = writeUnits(type, count);
    if (units.elements <= 0)
        return 0;
    const Pieces pieces = cutIntoPieces(units.elements, units.perRequest);
    const qint64 address = request.address;
    const bool searched = PLC_driver.com_info->per_variable_stations != 0;
    int queued = 0;
    for (qint64 j = 0; j < pieces.number; ++j) {
        const qint64 first = j * pieces.size;
        const qint64 begin = address + first * units.addressStep;
        if (!fitsInt(begin))
            break;
        request.address = int(begin);
        request.count = int(pieces.sizeOf(j));
        request.value =
            valuePiece(data, first * units.valueBytes, request.count * qint64(units.valueBytes));
        queued = AddListWriteVar(&request, 0);
        // The extend list takes as much of an absurd count as of one in a single request.
        const bool beyond = searched && first * units.addressStep >= MostExtendLookups;
        if (!beyond && loadShared(PLC_driver.link_failed))
            WriteDataToLocal(&request);
    }
    return queued;
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
    // input holds it: peers in the field rely on both.
    if (start < 0 || start + qint64(2) > bytesBehind(area))
        return;
    area[start] = inputByte(*in, 1);
    area[start + 1] = inputByte(*in, 0);
}

void SaveWord_unsigned_char(QByteArray* payload, unsigned char* area)
{
    if (!payload || PLC_driver.protocol_list.isEmpty())
        return;
    const Protocol& pending = PLC_driver.protocol_list.first();
    savePayload(*payload, pending, area, pending.var.address);
}

void SaveBit_unsigned_char(QByteArray* payload, unsigned char* area)
{
    if (!payload || PLC_driver.protocol_list.isEmpty())
        return;
    const Protocol& pending = PLC_driver.protocol_list.first();
    savePayload(*payload, pending, area, pending.var.address / 8);
}

void SaveWord_unsigned_short(QByteArray* payload, unsigned short* area)
{
    if (!payload || PLC_driver.protocol_list.isEmpty())
        return;
    const Protocol& pending = PLC_driver.protocol_list.first();
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

int GetRegisterData(QString name, int reg_type, QString address_text, int station, QByteArray& data,
                    int count)
{
    Q_UNUSED(name);
    const int address = StringAddressToInt(reg_type, address_text);
    if (address < 0)
        return 0;
    Q_ASSERT(PLC_driver.com_info);
    QMutexLocker lock(&PLC_driver.data_mutex);
    if (PLC_driver.com_info->per_variable_stations == 0)
        readImage(data, reg_type, address, count);
    else
        readExtendList(data, reg_type, station, address, count);
    return 1;
}

int SetRegisterData(QString name, int reg_type, QString address_text, int station, QByteArray* data,
                    int count, int host_key, int host_index)
{
    const int address = StringAddressToInt(reg_type, address_text);
    if (address < 0 || !data)
        return 0;
    Q_ASSERT(PLC_driver.com_info);
    const COM_INFO& info = *PLC_driver.com_info;
    RW_VAR request;
    request.host_key = host_key;
    request.host_index = host_index;
    request.origin = WriteOrigin;
    request.remote = info.remote_access;
    request.link_id = info.link_id;
    request.name = name;
    request.address_text = address_text;
    request.reg_type = reg_type;
    request.address = address;
    request.station = info.per_variable_stations != 0 ? station : info.default_station;
    if (info.communication_mode != Mode_WriteThrough) {
        request.count = count;
        request.value = *data;
        WriteDataToLocal(&request);
        return 1;
    }
    const RegisterTypeInfo* type = registerTypeInfo(reg_type);
    if (!type || !type->writable)
        return 0;
    return queuePieces(request, *type, *data, count);
}

void WriteDataToLocal(RW_VAR* var)
{
    QMutexLocker lock(&PLC_driver.data_mutex);
    if (PLC_driver.com_info->per_variable_stations == 0)
        writeImage(*var);
    else
        writeExtendList(*var);
}
