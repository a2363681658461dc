#ifndef PROTOCOL_FUNC_CHECK_H
#define PROTOCOL_FUNC_CHECK_H

#include <siemens_s7_200_cp243/export.h>

#include <QByteArray>

/// Judges the reply to the pending frame: 1 a good read, 2 a good write, 0 anything else. `len` is
/// the number of bytes received; bytes that `reply` does not hold count as not received.
/// protocol_list must not be empty. Comm loop's thread, no lock.
CP243_EXPORT int CheckGetData(QByteArray* reply, int len);

/// Sum of `len` bytes, low 16 bits.
CP243_EXPORT unsigned short CalSUM(unsigned char* data, unsigned short len);

/// CRC-16 as serial Modbus uses it (0xA001 reflected, start 0xFFFF); 0xFFFF for no bytes.
CP243_EXPORT unsigned short CalCRC(unsigned char* data, unsigned short len);

/// Longitudinal redundancy check, 1 to 256; 256 for no bytes.
CP243_EXPORT int CalLRC(unsigned char* data, unsigned short len);

/// Exclusive-or of the bytes. The first byte is read even when `len` is 0.
CP243_EXPORT unsigned short CalXOR(unsigned char* data, unsigned short len);

/// Character code of a digit value: '0' to '9', then 'A' and on.
CP243_EXPORT int DigitalToASCII(int value);

/// Digit value of a character code.
CP243_EXPORT int ASCIIToDigital(int code);

#endif
