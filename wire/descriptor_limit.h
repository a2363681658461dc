#ifndef WIRE_DESCRIPTOR_LIMIT_H
#define WIRE_DESCRIPTOR_LIMIT_H

#include <QString>

namespace s7200::wire
{

/// Takes all file descriptors that the system grants. Empty, or one line that says how many are
/// missing for `each` sockets of so many controllers; a single one is not worth a complaint.
QString raiseDescriptorLimit(int controllers, int each);

} // namespace s7200::wire

#endif
