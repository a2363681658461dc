#ifndef PROTOCOL_FUNC_WRITE_H
#define PROTOCOL_FUNC_WRITE_H

#include <siemens_s7_200_cp243/export.h>
#include <siemens_s7_200_cp243/request_records.h>

/// Builders of write jobs: each appends one Protocol to protocol_list and sets the batch to one
/// frame. Values are in host encoding and never read past their end (a missing byte is 0x00).
/// Comm loop's thread, no lock.

/// Chooses the builder by register type (none for a type that cannot be written), then copies the
/// value into the image unless the link has failed; that takes the data mutex.
CP243_EXPORT void WriteRegister(RW_VAR* var);

/// Q, M, S, SM and V bits: one bit, or a block of `count` bits sent one frame byte each.
CP243_EXPORT void WriteBool(RW_VAR* var);

/// Words, sent most significant byte first.
CP243_EXPORT void WriteAnalog(RW_VAR* var);

/// V bytes: declares `count` words and fills `count` bytes.
CP243_EXPORT void WriteAnalog_VB(RW_VAR* var);

/// Double words; `count` in 16-bit words.
CP243_EXPORT void WriteAnalog_VD(RW_VAR* var);

/// Timer values: five bytes each.
CP243_EXPORT void WriteAnalog_TV(RW_VAR* var);

/// Counter values: three bytes each.
CP243_EXPORT void WriteAnalog_CV(RW_VAR* var);

#endif
