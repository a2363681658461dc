#ifndef IMAGE_EXTEND_LIST_H
#define IMAGE_EXTEND_LIST_H

/// The extend list: stored controller elements by station, used in place of the image while
/// variables carry their own stations. It has no area sizes of its own, so its bounds stand here.
///
/// As everything of the image, to be used with the data mutex held.

#include "core/siemens_s7_200.h"

#include <QByteArray>
#include <QtGlobal>

namespace cp243
{

/// Start addresses travel as 24 bits counting bits: nothing further can be named on the wire.
constexpr int ExtendAddressEnd = 1 << 21;

/// Most elements, and most bits, that one store, read or write visits: those of the largest area.
/// Keeps an absurd count from filling memory.
constexpr int MostExtendElements = int(sizeof(Siemens_S7_200::V_area));
constexpr int MostExtendBits = 8 * MostExtendElements;

inline bool isExtendAddress(qint64 address)
{
    return address >= 0 && address < ExtendAddressEnd;
}

class ExtendIndex;

/// The elements of one key type at one station: bytes of an area, timers or counters. For one
/// access, within which nobody else changes the list.
class ExtendElements
{
public:
    ExtendElements(int station, int keyType);

    /// Index in extend_list, a missing element being appended; -1 for an address that cannot be
    /// named.
    int indexOf(qint64 address) const;

    /// The stored value; null for an address that cannot be named.
    const QByteArray* value(qint64 address) const;

    /// First byte of the value, 0 if there is none.
    char byteAt(qint64 address) const;

    // Each replaces the value and returns the index as indexOf() does.
    int setByte(qint64 address, char byte) const;
    int setPair(qint64 address, char low, char high) const;
    int clear(qint64 address) const;

private:
    static QByteArray* resized(int index, int size);

    ExtendIndex& m_index;
    int m_station;
    int m_keyType;
};

} // namespace cp243

#endif
