#ifndef PANEL_FRAME_TEXT_H
#define PANEL_FRAME_TEXT_H

#include <siemens_s7_200_cp243/request_records.h>

#include <QByteArray>
#include <QString>

#include <optional>

namespace s7200::panel
{

/// A request frame in words: "connection request", "read VB100 to VB153", "write M10.3".
QString describeRequest(const QByteArray& frame);

/// A read of the driver's lists in the same words, whatever becomes of it on the wire.
QString describeRead(const RW_VAR& request);

/// What a reply says: "item error: address out of range", "disconnect request", "4 bytes, no S7
/// reply"; "good" for one without an error.
QString describeReply(const QByteArray& reply);

/// The field of a request frame that the byte at `offset` belongs to: "PDU reference", "area".
QString fieldName(const QByteArray& frame, int offset);

/// What DataCom's result means, whatever the request's host_key.
QString describeResult(int result);

/// A ready-made request of which the driver builds this very read or write job, the reference and
/// the station apart; nothing for a frame that the driver never sends.
std::optional<RW_VAR> requestOf(const QByteArray& frame);

bool isConnectionRequest(const QByteArray& frame);
bool isSetup(const QByteArray& frame);
bool isWriteJob(const QByteArray& frame);

} // namespace s7200::panel

#endif
