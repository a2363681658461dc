#ifndef SIMULATOR_S7_REPLIES_H
#define SIMULATOR_S7_REPLIES_H

#include "wire/s7_fields.h"

#include <QByteArray>

namespace s7200::sim
{

using wire::DataSize;
using wire::ItemCode;
using wire::JobError;

/// What stands before a read reply's payload, counted in the granted PDU length.
constexpr int ReadReplyOverhead = 18;

/// What stands before a write job's payload, counted likewise.
constexpr int WriteJobOverhead = 28;

/// A read reply with one item. `payload` holds at most 65510 bytes, 8191 if counted in bits.
QByteArray readReply(quint16 reference, DataSize unit, const QByteArray& payload);

/// The 25-byte reply to a read whose item cannot be served.
QByteArray readRefusal(quint16 reference, ItemCode code);

/// The 22-byte reply to a write of one item.
QByteArray writeReply(quint16 reference, ItemCode code);

/// The 19-byte acknowledgement without data of a job that is refused as a whole.
QByteArray jobRefusal(quint16 reference, JobError error);

/// The 27-byte reply to setup communication, granting one job at a time and `pduLength` bytes.
QByteArray setupReply(quint16 reference, int pduLength);

/// The connection confirm (ISO 8073): references swapped, the request's parameters given back.
QByteArray connectionConfirm(quint16 clientReference, quint16 ownReference,
                             const QByteArray& parameters);

/// The disconnect request (ISO 8073) that answers a connection request instead.
QByteArray disconnectRequest(quint16 clientReference, wire::DisconnectReason reason);

/// Sets error class and code of a finished reply.
void setJobError(QByteArray& reply, JobError error);

} // namespace s7200::sim

#endif
