#ifndef PROTOCOL_FUNC_READ_H
#define PROTOCOL_FUNC_READ_H

#include <siemens_s7_200_cp243/export.h>
#include <siemens_s7_200_cp243/request_records.h>

/// Builders of read jobs: each appends one Protocol with a 31-byte frame to protocol_list and sets
/// the batch to one frame. The request is only read. Comm loop's thread, no lock.

/// Chooses the builder by register type; a type without one builds nothing.
CP243_EXPORT void ReadRegister(RW_VAR* var);

/// I, Q, M, S and SM bits: whole bytes from the one that holds bit `address`.
CP243_EXPORT void ReadBool(RW_VAR* var);

/// Byte areas: `count` bytes from byte `address`.
CP243_EXPORT void ReadAnalog(RW_VAR* var);

/// Analogue inputs and outputs: `count` words from byte `address`.
CP243_EXPORT void ReadAnalog_W(RW_VAR* var);

/// Timers and counters: `count` elements; the reply's element size follows the request's name.
CP243_EXPORT void ReadRegister_TC(RW_VAR* var);

/// `count` words of V memory as bytes. Public; no register type routes here.
CP243_EXPORT void ReadRegister_VB(RW_VAR* var);

#endif
