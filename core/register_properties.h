#ifndef CORE_REGISTER_PROPERTIES_H
#define CORE_REGISTER_PROPERTIES_H

/// What each register type is: area, width, the type its reads are folded onto.

#include <siemens_s7_200_cp243/register_types.h>

namespace cp243
{

constexpr int RegisterTypeCount = 25;

/// Controller areas in the order of the image, which is also the order of the cyclic list.
enum class Area { I, Q, M, S, SM, V, AIW, AQW, TV, CV, T, C };
constexpr int AreaCount = 12;

/// Access width of a register type.
enum class Width { Bit, Byte, Word, DoubleWord, AnalogWord, Timer, Counter, TimerBit, CounterBit };

struct RegisterTypeInfo {
    Area area;
    Width width;
    int wordType;  ///< What reads of this type are folded onto; itself where nothing is folded.
    bool writable; ///< Whether a write can be queued for the controller.
};

/// By register type.
extern const RegisterTypeInfo RegisterTypes[RegisterTypeCount];

/// What a register type is; null for a code outside 0 to 24.
inline const RegisterTypeInfo* registerTypeInfo(int regType)
{
    return regType >= 0 && regType < RegisterTypeCount ? &RegisterTypes[regType] : nullptr;
}

} // namespace cp243

#endif
