#ifndef IMAGE_FUNC_GETORSETDATA_H
#define IMAGE_FUNC_GETORSETDATA_H

/// Accessors of the data image.
///
/// The image keeps controller memory most significant byte first; byte arrays are in host encoding,
/// least significant byte first. No accessor takes a lock: callers hold the data mutex. An element
/// that does not lie wholly inside the image area that the pointer points into is skipped; for a
/// pointer outside the image the caller answers for its size.

#include <siemens_s7_200_cp243/export.h>

#include <QByteArray>

// Get: area to `out`, written from index 0, grown where needed and never shortened.

/// One byte 0 or 1 per bit from bit index `start`; a negative index gives 0.
CP243_EXPORT void GetBit_unsigned_char(QByteArray& out, unsigned char* area, int start, int count);

/// As GetBit_unsigned_char, over 16-bit values. No caller in the driver.
CP243_EXPORT void GetBit_unsigned_short(QByteArray& out, unsigned short* area, int start,
                                        int count);

/// Two bytes per word from byte offset `start`.
CP243_EXPORT void GetWord_unsigned_char(QByteArray& out, unsigned char* area, int start, int count);

/// Two bytes per byte from byte offset `start`: the byte, then 0.
CP243_EXPORT void Get8BitFromUC(QByteArray& out, unsigned char* area, int start, int count);

/// Two bytes per 16-bit value from element `start`.
CP243_EXPORT void GetWord_unsigned_short(QByteArray& out, unsigned short* area, int start,
                                         int count);

/// Four bytes per double word; `count` in words, an odd last word is dropped. A count below 2 gives
/// the low-order word.
CP243_EXPORT void Get32BitFromUc(QByteArray& out, unsigned char* area, int start, int count);

// Set: `in` to area; elements whose input bytes are missing are skipped.

/// One bit per input byte: 1 sets it, any other value clears it.
CP243_EXPORT void SetBit_unsigned_char(int start, unsigned char* area, QByteArray* in, int count);

/// Two input bytes per word at byte offset `start`.
CP243_EXPORT void SetValue_unsigned_char(int start, unsigned char* area, QByteArray* in, int count);

/// A straight copy of `count` input bytes.
CP243_EXPORT void Set8BitToUC(int start, unsigned char* area, QByteArray* in, int count);

/// Two input bytes per 16-bit value at element `start`.
CP243_EXPORT void SetValue_unsigned_short(int start, unsigned short* area, QByteArray* in,
                                          int count);

/// Four input bytes per double word; `count` in words. A count below 2 writes the high-order word,
/// the opposite of what Get32BitFromUc reads.
CP243_EXPORT void Set32BitToUC(int start, unsigned char* area, QByteArray* in, int count);

// Save: reply payload to area, at the place that the pending request (head of protocol_list) names.

/// Payload bytes to byte offset `address`.
CP243_EXPORT void SaveWord_unsigned_char(QByteArray* payload, unsigned char* area);

/// Payload bytes to byte offset `address` / 8.
CP243_EXPORT void SaveBit_unsigned_char(QByteArray* payload, unsigned char* area);

/// Payload pairs, high byte first, to element `address`. No caller in the driver.
CP243_EXPORT void SaveWord_unsigned_short(QByteArray* payload, unsigned short* area);

#endif
