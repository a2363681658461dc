#include "image/image_areas.h"

#include "core/checked_int.h"
#include "core/siemens_s7_200.h"

namespace cp243
{

namespace
{

struct ImageArea {
    const void* begin;
    unsigned char* bytes;   ///< Null for an area of values.
    unsigned short* values; ///< Null for an area of bytes.
    quintptr size;          ///< In bytes.
};

template <int Size>
constexpr ImageArea areaOf(unsigned char (&bytes)[Size])
{
    return {bytes, bytes, nullptr, Size};
}

template <int Size>
constexpr ImageArea areaOf(unsigned short (&values)[Size])
{
    return {values, nullptr, values, 2 * Size};
}

/// By Area.
const ImageArea Areas[AreaCount] = {
    areaOf(PLC_driver.I_area),   areaOf(PLC_driver.Q_area),   areaOf(PLC_driver.M_area),
    areaOf(PLC_driver.S_area),   areaOf(PLC_driver.SM_area),  areaOf(PLC_driver.V_area),
    areaOf(PLC_driver.AIW_area), areaOf(PLC_driver.AQW_area), areaOf(PLC_driver.TV_area),
    areaOf(PLC_driver.CV_area),  areaOf(PLC_driver.T_bits),   areaOf(PLC_driver.C_bits),
};

} // namespace

unsigned char* byteArea(Area area)
{
    return Areas[int(area)].bytes;
}

unsigned short* valueArea(Area area)
{
    return Areas[int(area)].values;
}

qint64 bytesBehind(const void* pointer)
{
    for (const ImageArea& area : Areas) {
        // Unsigned: a pointer before the area is far behind it.
        const quintptr offset = quintptr(pointer) - quintptr(area.begin);
        if (offset < area.size)
            return qint64(area.size - offset);
    }
    return MaxInt;
}

} // namespace cp243
