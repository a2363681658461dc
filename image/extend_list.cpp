#include "image/extend_list.h"

#include "image/Func_DealData.h"

#include <unordered_map>

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

struct ExtendHash {
    size_t operator()(const ExtendKey& key) const
    {
        constexpr quint64 Multiplier = 0x9E3779B97F4A7C15u;
        const quint64 owner = (quint64(quint32(key.station)) << 32) | quint32(key.regType);
        const quint64 mixed = (owner * Multiplier ^ quint32(key.address)) * Multiplier;
        return size_t(mixed >> 32);
    }
};

ExtendKey keyOf(const EXTENDVAR& entry)
{
    return {entry.station, entry.reg_type, entry.address};
}

} // namespace

/// The way to an entry of extend_list without a search. The list is public and others may append to
/// it: each access first takes in what is new at the list's end, a position counts only if the
/// entry there has the key, and what no longer fits by its length, its ends or the entry that was
/// looked for is made anew. An entry in the midst whose key is changed in place shows by none of
/// these until somebody looks for the old key: a look for the new one appends another entry, or
/// finds a later one, where a search from the list's begin would find this.
class ExtendIndex
{
public:
    /// To be called before the first find() of an access.
    void takeIn()
    {
        const QList<EXTENDVAR>& list = PLC_driver.extend_list;
        if (!fits(list))
            forget();
        for (; m_taken < int(list.size()); ++m_taken) {
            const ExtendKey key = keyOf(list.at(m_taken));
            if (!m_positions.emplace(key, m_taken).second)
                m_twice = true;
            m_last = key;
            if (m_taken == 0)
                m_first = key;
        }
    }

    /// Index of the first entry with the key, which is appended if there is none.
    int find(const ExtendKey& key)
    {
        const int near = nearby(key);
        if (near >= 0)
            return remember(near, key);
        int position = taken(key);
        if (position >= 0 && !(keyOf(PLC_driver.extend_list.at(position)) == key)) {
            forget();
            takeIn();
            position = taken(key);
        }
        return remember(position >= 0 ? position : append(key), key);
    }

private:
    int taken(const ExtendKey& key) const
    {
        const auto found = m_positions.find(key);
        return found != m_positions.end() ? found->second : -1;
    }

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
    }

    int append(const ExtendKey& key)
    {
        EXTENDVAR entry;
        entry.station = key.station;
        entry.reg_type = key.regType;
        entry.address = key.address;
        entry.value = QByteArray(4, '\0');
        PLC_driver.extend_list.append(entry);
        takeIn();
        return m_taken - 1;
    }

    /// Neighbouring addresses mostly stand in neighbouring entries, in the order of their addresses
    /// or one after the other as they were first asked for. -1: not there, or not surely the first.
    int nearby(const ExtendKey& key) const
    {
        if (m_twice)
            return -1;
        const qint64 byAddress = m_position + qint64(key.address) - m_key.address;
        if (isAt(byAddress, key))
            return int(byAddress);
        return isAt(m_position + qint64(1), key) ? m_position + 1 : -1;
    }

    bool isAt(qint64 position, const ExtendKey& key) const
    {
        return position >= 0 && position < m_taken &&
               keyOf(PLC_driver.extend_list.at(int(position))) == key;
    }

    int remember(int position, const ExtendKey& key)
    {
        m_position = position;
        m_key = key;
        return position;
    }

    // Not a QHash, which ends the program when memory runs out (Qt 6).
    std::unordered_map<ExtendKey, int, ExtendHash> m_positions; ///< Of the first with each key.
    int m_taken = 0;        ///< Entries of the list that m_positions covers.
    ExtendKey m_first = {}; ///< Of entry 0,
    ExtendKey m_last = {};  ///< and of the last entry covered.
    bool m_twice = false;   ///< Some key stands in the list more than once.
    int m_position = 0;     ///< Where the last look ended, for
    ExtendKey m_key = {};   ///< this key.
};

namespace
{

/// Not a static of a function, which would be gone before the host's own static objects, whose
/// destructors may still ask for values.
ExtendIndex extendIndex;

} // namespace

ExtendElements::ExtendElements(int station, int keyType)
    : m_index(extendIndex), m_station(station), m_keyType(keyType)
{
    m_index.takeIn();
}

int ExtendElements::indexOf(qint64 address) const
{
    return isExtendAddress(address) ? m_index.find({m_station, m_keyType, int(address)}) : -1;
}

const QByteArray* ExtendElements::value(qint64 address) const
{
    const int index = indexOf(address);
    return index >= 0 ? &PLC_driver.extend_list.at(index).value : nullptr;
}

char ExtendElements::byteAt(qint64 address) const
{
    const QByteArray* stored = value(address);
    return stored && !stored->isEmpty() ? stored->at(0) : '\0';
}

QByteArray* ExtendElements::resized(int index, int size)
{
    QByteArray& stored = PLC_driver.extend_list[index].value;
    // In the memory that the value has already: most stores replace one byte by another.
    if (stored.size() != size)
        stored.resize(size);
    return &stored;
}

int ExtendElements::setByte(qint64 address, char byte) const
{
    const int index = indexOf(address);
    if (index >= 0)
        resized(index, 1)->data()[0] = byte;
    return index;
}

int ExtendElements::setPair(qint64 address, char low, char high) const
{
    const int index = indexOf(address);
    if (index >= 0) {
        char* bytes = resized(index, 2)->data();
        bytes[0] = low;
        bytes[1] = high;
    }
    return index;
}

int ExtendElements::clear(qint64 address) const
{
    const int index = indexOf(address);
    if (index >= 0)
        resized(index, 0);
    return index;
}

} // namespace cp243

int ExtendFindSameVar(int station, int reg_type, int address)
{
    cp243::extendIndex.takeIn();
    return cp243::extendIndex.find({station, reg_type, address});
}
