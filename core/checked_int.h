#ifndef CORE_CHECKED_INT_H
#define CORE_CHECKED_INT_H

/// Integer arithmetic on numbers that the host or the wire chose: computed in 64 bits, then brought
/// back into the 32-bit fields without overflow.

#include <QtGlobal>

#include <limits>

namespace cp243
{

constexpr int MaxInt = std::numeric_limits<int>::max();
constexpr int MinInt = std::numeric_limits<int>::min();

inline bool fitsInt(qint64 value)
{
    return value >= MinInt && value <= MaxInt;
}

inline int clampToInt(qint64 value)
{
    return int(qBound(qint64(MinInt), value, qint64(MaxInt)));
}

/// Counts up, stopping at the largest int.
inline void countUp(int& counter)
{
    if (counter < MaxInt)
        ++counter;
}

/// A total cut into pieces of one size, the last holding the rest.
struct Pieces {
    qint64 number; ///< Not positive: no piece.
    qint64 size;
    qint64 last;

    qint64 sizeOf(qint64 piece) const
    {
        return piece == number - 1 ? last : size;
    }
};

/// A size of 0 makes one piece of the whole total; a total of 0 makes none.
inline Pieces cutIntoPieces(qint64 total, qint64 size)
{
    const qint64 whole = size != 0 ? total / size : 0;
    const qint64 rest = total - whole * size;
    if (rest != 0)
        return {whole + 1, size, rest};
    return {whole, size, size};
}

} // namespace cp243

#endif
