#ifndef PROTOCOL_FUNC_REMOTE_H
#define PROTOCOL_FUNC_REMOTE_H

#include <siemens_s7_200_cp243/export.h>
#include <siemens_s7_200_cp243/request_records.h>

/// Builders of forwarding records for remote access: the request's identifying fields behind a
/// length byte, closed by a one-byte additive checksum. Comm loop's thread.

/// Appends a 22-byte read record. No lock.
CP243_EXPORT void Remote_ReadVar(RW_VAR* var);

/// Appends a write record with the value as it stands, then copies the value into the image
/// whatever the state of the link, which takes the data mutex.
CP243_EXPORT void Remote_WriteVar(RW_VAR* var);

#endif
