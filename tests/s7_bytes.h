#ifndef TESTS_S7_BYTES_H
#define TESTS_S7_BYTES_H

/// Replies of a controller in good health, byte by byte, and hex notation for them.

#include <QByteArray>

/// Bytes of a hex text; blanks between them are for the reader.
inline QByteArray fromHex(const QByteArray& text)
{
    return QByteArray::fromHex(text);
}

/// Bytes as hex text, so that a failed comparison shows a frame as one would write it down.
inline QByteArray toHex(const QByteArray& raw)
{
    return raw.toHex(' ');
}

/// The low 16 bits of a number, most significant byte first.
inline QByteArray word16(int number)
{
    return QByteArray(1, char(number >> 8)) + char(number);
}

inline QByteArray connectionConfirm()
{
    return fromHex("03000016 11D0 0001 0008 00 C00109 C1021000 C2021100");
}

inline QByteArray setupReply()
{
    return fromHex("0300001B 02F080 3203 0000 0108 0008 0000 0000 F000 0001 0001 00F0");
}

/// `transport` 4 states the payload's length in bits, any other in bytes.
inline QByteArray readReply(int pduRef, const QByteArray& payload, char transport = 4)
{
    const int size = int(payload.size());
    return fromHex("0300") + word16(25 + size) + fromHex("02F080 3203 0000") + word16(pduRef) +
           fromHex("0002") + word16(4 + size) + fromHex("0000 0401 FF") + transport +
           word16(transport == 4 ? 8 * size : size) + payload;
}

inline QByteArray writeReply(int pduRef)
{
    return fromHex("03000016 02F080 3203 0000") + word16(pduRef) + fromHex("0002 0001 0000 0501FF");
}

#endif
