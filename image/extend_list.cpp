#include "image/extend_list.h"

#include "image/Func_DealData.h"

#include <QHash>

#include <cstring>

namespace cp243
{

namespace
{

struct ExtendKey {
    int station;
    int regType;
    int address;
};

bool operator==(const ExtendKey& a, const ExtendKey& b)
{
    return a.address == b.address && a.station == b.station && a.regType == b.regType;
}

size_t qHash(const ExtendKey& key, size_t seed = 0)
{
    constexpr quint64 Multiplier = 0x9E3779B97F4A7C15u;
    const quint64 owner = (quint64(quint32(key.station)) << 32) | quint32(key.regType);
    const quint64 mixed = (owner * Multiplier ^ quint32(key.address) ^ seed) * Multiplier;
    return size_t(mixed >> 32);
}

ExtendKey keyOf(const EXTENDVAR& entry)
{
    return {entry.station, entry.reg_type, entry.address};
}

/// The way to an entry of extend_list without a search. The list is public and others may append to
/// it, so nothing remembered here is believed: what is new at its end is taken in before each look,
/// a position counts only if the entry there has the key, and what does not fit is made anew.
class ExtendIndex
{
public:
    /// Index of the first entry with the key, -1 if there is none.
    int find(const ExtendKey& key)
    {
        const QList<EXTENDVAR>& list = PLC_driver.extend_list;
        if (!fits(list))
            forget();
        takeIn(list);
        const int near = nearby(list, key);
        if (near >= 0)
            return remember(near, key);
        int position = m_positions.value(key, -1);
        if (position >= 0 && !(keyOf(list.at(position)) == key)) {
            forget();
            takeIn(list);
            position = m_positions.value(key, -1);
        }
        return position >= 0 ? remember(position, key) : -1;
    }

    int append(const ExtendKey& key)
    {
        EXTENDVAR entry;
        entry.station = key.station;
        entry.reg_type = key.regType;
        entry.address = key.address;
        entry.value = QByteArray(4, '\0');
        PLC_driver.extend_list.append(entry);
        return remember(int(PLC_driver.extend_list.size()) - 1, key);
    }

private:
    /// Whether the list is still the one that was taken in, by its length and both its ends.
    bool fits(const QList<EXTENDVAR>& list) const
    {
        return m_taken == 0 || (list.size() >= m_taken && keyOf(list.first()) == m_first &&
                                keyOf(list.at(m_taken - 1)) == m_last);
    }

    void forget()
    {
        m_positions.clear();
        m_taken = 0;
        m_twice = false;
        m_position = 0;
    }

    void takeIn(const QList<EXTENDVAR>& list)
    {
        const int size = int(list.size());
        if (m_taken == size)
            return;
        for (int i = m_taken; i < size; ++i) {
            const ExtendKey key = keyOf(list.at(i));
            if (m_positions.contains(key))
                m_twice = true;
            else
                m_positions.insert(key, i);
            m_taken = i + 1;
            m_last = key;
        }
        m_first = keyOf(list.first());
    }

    /// Neighbouring addresses mostly stand in neighbouring entries, in the order of their addresses
    /// or one after the other as they were first asked for. -1: not there, or not surely the first.
    int nearby(const QList<EXTENDVAR>& list, const ExtendKey& key) const
    {
        if (m_twice)
            return -1;
        for (const qint64 guess :
             {m_position + qint64(key.address) - m_key.address, qint64(m_position) + 1}) {
            if (guess >= 0 && guess < m_taken && keyOf(list.at(int(guess))) == key)
                return int(guess);
        }
        return -1;
    }

    int remember(int position, const ExtendKey& key)
    {
        m_position = position;
        m_key = key;
        return position;
    }

    QHash<ExtendKey, int> m_positions; ///< Of the first entry with each key.
    int m_taken = 0;                   ///< Entries of the list that m_positions covers.
    ExtendKey m_first = {};            ///< Of entry 0,
    ExtendKey m_last = {};             ///< and of the last entry covered.
    bool m_twice = false;              ///< Some key stands in the list more than once.
    int m_position = 0;                ///< Where the last look ended, for
    ExtendKey m_key = {};              ///< this key.
};

/// Made at the first use: loading the library does no work but that of its one object.
ExtendIndex& extendIndex()
{
    static ExtendIndex index;
    return index;
}

} // namespace

int ExtendElements::indexOf(qint64 address) const
{
    return isExtendAddress(address) ? ExtendFindSameVar(m_station, m_keyType, int(address)) : -1;
}

QByteArray* ExtendElements::value(qint64 address) const
{
    const int index = indexOf(address);
    return index >= 0 ? &PLC_driver.extend_list[index].value : nullptr;
}

char ExtendElements::byteAt(qint64 address) const
{
    const int index = indexOf(address);
    if (index < 0)
        return '\0';
    const QByteArray& value = PLC_driver.extend_list.at(index).value;
    return value.isEmpty() ? '\0' : value.at(0);
}

void ExtendElements::set(qint64 address, const char* bytes, int size) const
{
    if (QByteArray* stored = value(address)) {
        // Into the memory that the value has already: most stores replace one byte by another.
        stored->resize(size);
        std::memcpy(stored->data(), bytes, size_t(size));
    }
}

} // namespace cp243

int ExtendFindSameVar(int station, int reg_type, int address)
{
    using namespace cp243;
    const ExtendKey key = {station, reg_type, address};
    const int found = extendIndex().find(key);
    return found >= 0 ? found : extendIndex().append(key);
}
