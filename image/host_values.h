#ifndef IMAGE_HOST_VALUES_H
#define IMAGE_HOST_VALUES_H

/// The host's value reads and writes: GetRegisterData and SetRegisterData are declared in
/// host_interface.h.

#include <siemens_s7_200_cp243/export.h>
#include <siemens_s7_200_cp243/request_records.h>

/// Copies a write request's value into the image, or into the extend list while variables carry
/// their own stations. There a double-word write pads var->value with zero bytes. Takes the data
/// mutex.
CP243_EXPORT void WriteDataToLocal(RW_VAR* var);

#endif
