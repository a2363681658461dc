#include "image/Func_DealData.h"

#include "core/register_properties.h"
#include "core/siemens_s7_200.h"
#include "image/Func_GetOrSetData.h"
#include "image/image_areas.h"
#include "varlists/Func_Initi.h"

using namespace cp243;

namespace
{

/// Where a timer or counter entry of a reply has its parts; byte 0 is the status byte.
struct EntryLayout {
    int bytes;
    int valueOffset; ///< Current value, two bytes, most significant first.
    uchar statusOn;
};
constexpr EntryLayout TimerEntry = {5, 3, 0x02};
constexpr EntryLayout CounterEntry = {3, 1, 0x10};

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
void saveValues(const EntryReader& reader, qint64 number, unsigned short (&area)[256])
{
    for (int k = 0; k < reader.entries() && reader.holds(k); ++k) {
        if (number + k >= 0 && number + k < 256)
            area[number + k] =
                static_cast<unsigned short>((reader.valueHigh(k) << 8) | reader.valueLow(k));
    }
}

/// Bits of timers or counters are only ever set, never cleared; screens in the field rely on that.
void saveBits(const EntryReader& reader, qint64 number, uchar statusOn, unsigned char (&area)[32])
{
    for (int k = 0; k < reader.entries() && reader.holds(k); ++k) {
        const qint64 bit = number + k;
        if (bit >= 0 && bit < 256 && reader.status(k) == statusOn)
            area[bit / 8] = static_cast<unsigned char>(area[bit / 8] | (1u << (bit % 8)));
    }
}

void saveToImage(QByteArray* reply, const Protocol& pending)
{
    Siemens_S7_200& driver = PLC_driver;
    const RegisterTypeInfo* type = registerTypeInfo(pending.var.reg_type);
    if (!type)
        return;
    if (isTimed(type)) {
        const EntryLayout& layout = layoutOf(*type);
        const EntryReader reader(*reply, pending, layout);
        if (type->area == Area::TV)
            saveValues(reader, pending.var.address, driver.TV_area);
        else if (type->area == Area::CV)
            saveValues(reader, pending.var.address, driver.CV_area);
        else
            saveBits(reader, pending.var.address, layout.statusOn,
                     type->area == Area::T ? driver.T_bits : driver.C_bits);
        return;
    }
    unsigned char* area = byteArea(type->area);
    // V bits come with a byte address, the other bit types with a bit address.
    if (type->width == Width::Bit && type->area != Area::V)
        SaveBit_unsigned_char(reply, area);
    else
        SaveWord_unsigned_char(reply, area);
}

/// Visits the entries of one reply; the one visited last, or entry 0 if none was, gets its value
/// resized at the end.
class ExtendStore
{
public:
    ExtendStore(int station, int keyType) : m_station(station), m_keyType(keyType) {}

    QByteArray* clearedEntry(qint64 address)
    {
        if (!isExtendAddress(address))
            return nullptr;
        m_last = ExtendFindSameVar(m_station, m_keyType, int(address));
        QByteArray& value = PLC_driver.extend_list[m_last].value;
        value.clear();
        return &value;
    }

    /// `visited` is how often the store's loop ran. Entry 0 takes the resize of a store that had
    /// nothing to do; peers in the field rely on that.
    void resizeLast(int visited, int bytes) const
    {
        const int index = visited > 0 ? m_last : 0;
        if (index < 0 || index >= PLC_driver.extend_list.size())
            return;
        QByteArray& value = PLC_driver.extend_list[index].value;
        const int before = int(value.size());
        value.resize(qBound(0, bytes, LongestPayload));
        for (int i = before; i < value.size(); ++i)
            value[i] = '\0';
    }

private:
    int m_station;
    int m_keyType;
    int m_last = -1;
};

void extendWithEntries(const QByteArray& reply, const Protocol& pending,
                       const RegisterTypeInfo& type)
{
    const EntryReader reader(reply, pending, layoutOf(type));
    ExtendStore store(pending.var.station, pending.var.reg_type);
    const int visited = qMin(reader.entries(), MostExtendLookups);
    for (int k = 0; k < visited; ++k) {
        QByteArray* value = store.clearedEntry(qint64(pending.var.address) + k);
        if (!value || !reader.holds(k))
            continue;
        if (holdsValue(type)) {
            value->append(char(reader.valueLow(k)));
            value->append(char(reader.valueHigh(k)));
        } else {
            value->append(char(reader.status(k))); // as it came, unlike the image's bits
        }
    }
    store.resizeLast(visited, holdsValue(type) ? 2 * visited : visited);
}

void extendWithBytes(const QByteArray& reply, const Protocol& pending)
{
    RW_VAR key = pending.var;
    setReg_type(&key);
    ExtendStore store(key.station, key.reg_type);
    const int visited = qMin(pending.data_len, MostExtendLookups);
    for (int i = 0; i < visited; ++i) {
        QByteArray* value = store.clearedEntry(qint64(key.address) + i);
        const qint64 at = qint64(pending.data_offset) + i;
        if (value && at >= 0 && at < reply.size())
            value->append(reply.at(int(at)));
    }
    store.resizeLast(visited, pending.data_len);
}

} // namespace

void SaveToLocalDataErea(QByteArray* reply)
{
    if (!reply || PLC_driver.protocol_list.isEmpty())
        return;
    const Protocol& pending = PLC_driver.protocol_list.first();
    const RegisterTypeInfo* type = registerTypeInfo(pending.var.reg_type);
    if (PLC_driver.com_info->per_variable_stations == 0)
        saveToImage(reply, pending);
    else if (isTimed(type))
        extendWithEntries(*reply, pending, *type);
    else
        extendWithBytes(*reply, pending);
}

int ExtendFindSameVar(int station, int reg_type, int address)
{
    QList<EXTENDVAR>& list = PLC_driver.extend_list;
    const int size = int(list.size());
    for (int i = 0; i < size; ++i) {
        const EXTENDVAR& entry = list.at(i);
        if (entry.address == address && entry.station == station && entry.reg_type == reg_type)
            return i;
    }
    EXTENDVAR entry;
    entry.station = station;
    entry.reg_type = reg_type;
    entry.address = address;
    entry.value = QByteArray(4, '\0');
    list.append(entry);
    return size;
}
