#ifndef IMAGE_FUNC_DEALDATA_H
#define IMAGE_FUNC_DEALDATA_H

#include <siemens_s7_200_cp243/export.h>

#include <QByteArray>

/// Copies the payload of a good read reply into the image, or into the extend list while variables
/// carry their own stations. The pending request (head of protocol_list) says where. Takes no lock;
/// the local reply path holds the data mutex.
CP243_EXPORT void SaveToLocalDataErea(QByteArray* reply);

/// Index in extend_list of the element (station, type, address); a missing one is appended with
/// four zero bytes. Defined with the list, in extend_list.cpp. The caller holds the data mutex.
CP243_EXPORT int ExtendFindSameVar(int station, int reg_type, int address);

#endif
