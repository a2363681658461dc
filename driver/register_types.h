#ifndef DRIVER_REGISTER_TYPES_H
#define DRIVER_REGISTER_TYPES_H

/// Register types: the codes, shared with the host, that name a controller area and an access
/// width.

enum RegisterType {
    Type_I = 0,
    Type_Q = 1,
    Type_M = 2,
    Type_S = 3,
    Type_SM = 4,
    Type_V = 5,
    Type_IW = 6,
    Type_QW = 7,
    Type_MW = 8,
    Type_SW = 9,
    Type_SMW = 10,
    Type_VB = 11,
    Type_VW = 12,
    Type_VD = 13,
    Type_TV = 14,
    Type_CV = 15,
    Type_AIW = 16,
    Type_AQW = 17,
    Type_T = 18,
    Type_C = 19,
    Type_ID = 20,
    Type_QD = 21,
    Type_MD = 22,
    Type_SD = 23,
    Type_SMD = 24
};
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

/// What a register type is; null for a code outside 0 to 24.
const RegisterTypeInfo* registerTypeInfo(int regType);

#endif
