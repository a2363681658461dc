#include "image/Func_DealData.h"

#include "core/register_properties.h"
#include "core/siemens_s7_200.h"
#include "image/Func_GetOrSetData.h"
#include "image/extend_list.h"
#include "image/image_areas.h"
#include "varlists/Func_Initi.h"

#include <cstring>

using namespace cp243;

namespace
{

/// Where a timer or counter entry of a reply has its parts; byte 0 is the status byte.
struct EntryLayout {
    int bytes;
    int valueOffset; ///< Current value, two bytes, most significant first.
    uchar statusOn;  ///< This and nothing else. Deliberate: docs/oddities.md, Timers and counters.
};
constexpr EntryLayout TimerEntry = {5, 3, 0x02};
constexpr EntryLayout CounterEntry = {3, 1, 0x10};

/// Timers, and counters, that the image has.
constexpr int Numbers = 256;

/// No reply's payload is longer; keeps an absurd length from being allocated.
constexpr int LongestPayload = 0xFFFF;

bool isTimed(const RegisterTypeInfo* type)
{
    return type && (type->area == Area::TV || type->area == Area::CV || type->area == Area::T ||
                    type->area == Area::C);
}

bool holdsValue(const RegisterTypeInfo& type)
{
    return type.width == Width::Timer || type.width == Width::Counter;
}

const EntryLayout& layoutOf(const RegisterTypeInfo& type)
{
    return type.area == Area::TV || type.area == Area::T ? TimerEntry : CounterEntry;
}

/// The pending request's payload of entries, as far as the reply holds it.
class EntryReader
{
public:
    EntryReader(const QByteArray& reply, const Protocol& pending, const EntryLayout& layout)
        : m_reply(reply), m_layout(layout), m_offset(pending.data_offset),
          m_entries(pending.data_len / layout.bytes)
    {
    }

    int entries() const
    {
        return m_entries;
    }

    bool holds(int entry) const
    {
        return m_offset >= 0 && at(entry) + m_layout.bytes <= m_reply.size();
    }

    uchar status(int entry) const
    {
        return uchar(m_reply.at(int(at(entry))));
    }

    uchar valueHigh(int entry) const
    {
        return uchar(m_reply.at(int(at(entry)) + m_layout.valueOffset));
    }

    uchar valueLow(int entry) const
    {
        return uchar(m_reply.at(int(at(entry)) + m_layout.valueOffset + 1));
    }

private:
    qint64 at(int entry) const
    {
        return m_offset + qint64(entry) * m_layout.bytes;
    }

    const QByteArray& m_reply;
    const EntryLayout& m_layout;
    int m_offset;
    int m_entries;
};

/// Values of timers or counters. Numbers outside the image are skipped.
void saveValues(const EntryReader& reader, qint64 number, unsigned short* area)
{
    for (int k = 0; k < reader.entries() && reader.holds(k); ++k) {
        if (number + k >= 0 && number + k < Numbers)
            area[number + k] =
                static_cast<unsigned short>((reader.valueHigh(k) << 8) | reader.valueLow(k));
    }
}

/// Bits of timers or counters latch: they are only ever set, never cleared. Deliberate:
/// docs/oddities.md, Timers and counters.
void saveBits(const EntryReader& reader, qint64 number, uchar statusOn, unsigned char* area)
{
    for (int k = 0; k < reader.entries() && reader.holds(k); ++k) {
        const qint64 bit = number + k;
        if (bit >= 0 && bit < Numbers && reader.status(k) == statusOn)
            area[bit / 8] = static_cast<unsigned char>(area[bit / 8] | (1u << (bit % 8)));
    }
}

void saveToImage(QByteArray* reply, const Protocol& pending)
{
    const RegisterTypeInfo* type = registerTypeInfo(pending.var.reg_type);
    if (!type)
        return;
    if (isTimed(type)) {
        const EntryLayout& layout = layoutOf(*type);
        const EntryReader reader(*reply, pending, layout);
        if (unsigned short* values = valueArea(type->area))
            saveValues(reader, pending.var.address, values);
        else
            saveBits(reader, pending.var.address, layout.statusOn, byteArea(type->area));
        return;
    }
    unsigned char* area = byteArea(type->area);
    // V bits come with a byte address, the other bit types with a bit address.
    if (type->width == Width::Bit && type->area != Area::V)
        SaveBit_unsigned_char(reply, area);
    else
        SaveWord_unsigned_char(reply, area);
}

/// The element visited last, or entry 0 if none was, gets its value resized at the end of a store;
/// what is added is 0. Deliberate: docs/oddities.md, Several stations.
void resizeLast(int index, int bytes)
{
    if (index < 0 || index >= PLC_driver.extend_list.size())
        return;
    QByteArray& value = PLC_driver.extend_list[index].value;
    const int before = int(value.size());
    value.resize(qBound(0, bytes, LongestPayload));
    if (before < value.size())
        std::memset(value.data() + before, 0, size_t(value.size() - before));
}

void extendWithEntries(const QByteArray& reply, const Protocol& pending,
                       const RegisterTypeInfo& type)
{
    const EntryReader reader(reply, pending, layoutOf(type));
    const ExtendElements stored(pending.var.station, pending.var.reg_type);
    const int visited = qMin(reader.entries(), MostExtendElements);
    int last = visited > 0 ? -1 : 0;
    for (int k = 0; k < visited; ++k) {
        const qint64 number = qint64(pending.var.address) + k;
        int index;
        if (!reader.holds(k))
            index = stored.clear(number);
        else if (holdsValue(type))
            index = stored.setPair(number, char(reader.valueLow(k)), char(reader.valueHigh(k)));
        else
            index =
                stored.setByte(number, char(reader.status(k))); // as it came, unlike the image's
        last = index >= 0 ? index : last;
    }
    resizeLast(last, holdsValue(type) ? 2 * visited : visited);
}

void extendWithBytes(const QByteArray& reply, const Protocol& pending)
{
    RW_VAR key = pending.var;
    setReg_type(&key);
    const ExtendElements stored(key.station, key.reg_type);
    const int visited = qMin(pending.data_len, MostExtendElements);
    int last = visited > 0 ? -1 : 0;
    for (int i = 0; i < visited; ++i) {
        const qint64 at = qint64(pending.data_offset) + i;
        const bool held = at >= 0 && at < reply.size();
        const qint64 address = qint64(key.address) + i;
        const int index = held ? stored.setByte(address, reply.at(int(at))) : stored.clear(address);
        last = index >= 0 ? index : last;
    }
    resizeLast(last, pending.data_len);
}

} // namespace

void SaveToLocalDataErea(QByteArray* reply)
{
    if (!reply || PLC_driver.protocol_list.isEmpty())
        return;
    const Protocol& pending = PLC_driver.protocol_list.at(0);
    const RegisterTypeInfo* type = registerTypeInfo(pending.var.reg_type);
    if (PLC_driver.com_info->per_variable_stations == 0)
        saveToImage(reply, pending);
    else if (isTimed(type))
        extendWithEntries(*reply, pending, *type);
    else
        extendWithBytes(*reply, pending);
}
