#ifndef HOST_VARIABLE_BOUNDS_H
#define HOST_VARIABLE_BOUNDS_H

#include <s7200host/variable.h>

namespace s7200
{

/// False for a variable that parseVariable() would not have given: its members are public.
inline bool isInItsArea(const Variable& variable)
{
    return variable.area && variable.address >= 0 && variable.bit >= 0 && variable.bit < 8 &&
           variable.repeat >= 1 && variable.address < variable.area->size &&
           variable.repeat <= 8 * variable.area->size && variable.endUnit() <= variable.area->size;
}

} // namespace s7200

#endif
