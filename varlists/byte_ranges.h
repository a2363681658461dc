#ifndef VARLISTS_BYTE_RANGES_H
#define VARLISTS_BYTE_RANGES_H

/// How many bytes a variable covers, which both read lists ask.

#include <QtGlobal>

namespace cp243
{

/// Bytes that `bits` bits cover, the first of which is bit `bitInByte` of its byte.
inline qint64 bytesOfBits(qint64 bitInByte, qint64 bits)
{
    return (bitInByte + bits + 7) >> 3;
}

/// Bytes of `words` 16-bit words made up to whole double words.
inline qint64 bytesOfDoubleWords(qint64 words)
{
    return (words + 1) / 2 * 4;
}

} // namespace cp243

#endif
