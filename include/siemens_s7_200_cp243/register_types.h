#ifndef SIEMENS_S7_200_CP243_REGISTER_TYPES_H
#define SIEMENS_S7_200_CP243_REGISTER_TYPES_H

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

#endif
