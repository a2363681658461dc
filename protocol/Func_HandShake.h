#ifndef PROTOCOL_FUNC_HANDSHAKE_H
#define PROTOCOL_FUNC_HANDSHAKE_H

#include <siemens_s7_200_cp243/export.h>
#include <siemens_s7_200_cp243/request_records.h>

#include <QByteArray>

/// Queues the two frames that open a connection for the station of `var`: the connection request
/// (ISO 8073 CR TPDU in a TPKT of RFC 1006) and the S7 setup-communication job. TSAPs come from LW
/// words 55000 (called) and 55001 (calling); when either is 0 both are set to their defaults.
CP243_EXPORT void SIEMENS_HandShake(RW_VAR* var);

/// 1 if `reply` answers the handshake frame numbered COM_INFO::frame_index, else 0 (null included).
CP243_EXPORT int SIEMENS_CheckHSReturn(QByteArray* reply);

#endif
