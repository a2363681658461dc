#ifndef IMAGE_EXTEND_VALUES_H
#define IMAGE_EXTEND_VALUES_H

/// The host's value reads and writes while variables carry their own stations, in host encoding.
/// The caller holds the data mutex.

#include <siemens_s7_200_cp243/request_records.h>

#include <QByteArray>

namespace cp243
{

/// Reads `count` elements into `out` from index 0 on. What was never stored reads as 0 and leaves
/// an element behind.
void readExtendList(QByteArray& out, int regType, int station, int address, int count);

/// Stores the request's value. A double-word write pads var.value with zero bytes.
void writeExtendList(RW_VAR& var);

} // namespace cp243

#endif
