#ifndef IMAGE_IMAGE_AREAS_H
#define IMAGE_IMAGE_AREAS_H

/// Bounds of the extend list, which has no area sizes of its own, and the image's byte areas by
/// name, for the two sources of this room.

#include "core/register_properties.h"
#include "core/siemens_s7_200.h"

#include <QtGlobal>

namespace cp243
{

/// Start addresses travel as 24 bits counting bits: nothing further can be named on the wire.
constexpr int ExtendAddressEnd = 1 << 21;

/// Most entries that one store, read or write visits: the bytes of the largest area. Keeps an
/// absurd count from filling memory, and from searching for long.
constexpr int MostExtendLookups = int(sizeof(Siemens_S7_200::V_area));

inline bool isExtendAddress(qint64 address)
{
    return address >= 0 && address < ExtendAddressEnd;
}

/// The image area of bytes; null for the areas of timer and counter values.
inline unsigned char* byteArea(Area area)
{
    switch (area) {
    case Area::I:
        return PLC_driver.I_area;
    case Area::Q:
        return PLC_driver.Q_area;
    case Area::M:
        return PLC_driver.M_area;
    case Area::S:
        return PLC_driver.S_area;
    case Area::SM:
        return PLC_driver.SM_area;
    case Area::V:
        return PLC_driver.V_area;
    case Area::AIW:
        return PLC_driver.AIW_area;
    case Area::AQW:
        return PLC_driver.AQW_area;
    case Area::T:
        return PLC_driver.T_bits;
    case Area::C:
        return PLC_driver.C_bits;
    default:
        return nullptr;
    }
}

} // namespace cp243

#endif
