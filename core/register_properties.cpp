#include "core/register_properties.h"

namespace cp243
{

const RegisterTypeInfo RegisterTypes[RegisterTypeCount] = {
    {Area::I, Width::Bit, Type_IW, false},           // 0  I
    {Area::Q, Width::Bit, Type_QW, true},            // 1  Q
    {Area::M, Width::Bit, Type_MW, true},            // 2  M
    {Area::S, Width::Bit, Type_SW, true},            // 3  S
    {Area::SM, Width::Bit, Type_SMW, true},          // 4  SM
    {Area::V, Width::Bit, Type_VW, true},            // 5  V
    {Area::I, Width::Word, Type_IW, false},          // 6  IW
    {Area::Q, Width::Word, Type_QW, true},           // 7  QW
    {Area::M, Width::Word, Type_MW, true},           // 8  MW
    {Area::S, Width::Word, Type_SW, true},           // 9  SW
    {Area::SM, Width::Word, Type_SMW, true},         // 10 SMW
    {Area::V, Width::Byte, Type_VW, true},           // 11 VB
    {Area::V, Width::Word, Type_VW, true},           // 12 VW
    {Area::V, Width::DoubleWord, Type_VW, true},     // 13 VD
    {Area::TV, Width::Timer, Type_TV, true},         // 14 TV
    {Area::CV, Width::Counter, Type_CV, true},       // 15 CV
    {Area::AIW, Width::AnalogWord, Type_AIW, false}, // 16 AIW
    {Area::AQW, Width::AnalogWord, Type_AQW, true},  // 17 AQW
    {Area::T, Width::TimerBit, Type_T, false},       // 18 T
    {Area::C, Width::CounterBit, Type_C, false},     // 19 C
    {Area::I, Width::DoubleWord, Type_IW, false},    // 20 ID
    {Area::Q, Width::DoubleWord, Type_QW, true},     // 21 QD
    {Area::M, Width::DoubleWord, Type_MW, true},     // 22 MD
    {Area::S, Width::DoubleWord, Type_SW, true},     // 23 SD
    {Area::SM, Width::DoubleWord, Type_SMW, true},   // 24 SMD
};

} // namespace cp243
