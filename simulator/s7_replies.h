#ifndef SIMULATOR_S7_REPLIES_H
#define SIMULATOR_S7_REPLIES_H

#include <QByteArray>
#include <QString>

/// Return code of a reply's item.
enum class ReturnCode : quint8 {
    AccessDenied = 0x03,
    AddressOutOfRange = 0x05,
    TypeNotSupported = 0x06,
    LengthMismatch = 0x07,
    NoSuchObject = 0x0A,
    Success = 0xFF
};

/// Error class and code of a reply's header.
enum class JobError : quint16 { None = 0, NotSupported = 0x8104, PduTooLong = 0x8500 };

/// Transport size of a read reply's item; it decides the unit of the item's length.
enum class ReplyUnit : quint8 { Bit = 0x03, Bits = 0x04, Bytes = 0x09 };

enum class S7Function : quint8 { Read = 0x04, Write = 0x05, SetupCommunication = 0xF0 };

/// Offsets in every S7 acknowledgement with data, the TPKT and COTP headers included.
constexpr int ReferenceOffset = 11;
constexpr int ErrorClassOffset = 17;
constexpr int FunctionOffset = 19;
constexpr int ReturnCodeOffset = 21;
constexpr int ItemLengthOffset = 23;
constexpr int ReadPayloadOffset = 25;

/// What stands before a read reply's payload, counted in the granted PDU length.
constexpr int ReadReplyOverhead = 18;

/// A read reply with one item. `payload` holds at most 65510 bytes, 8191 if counted in bits.
QByteArray readReply(quint16 reference, ReplyUnit unit, const QByteArray& payload);

/// The 25-byte reply to a read whose item cannot be served.
QByteArray readRefusal(quint16 reference, ReturnCode code);

/// The 22-byte reply to a write of one item.
QByteArray writeReply(quint16 reference, ReturnCode code);

/// The 19-byte acknowledgement without data of a job that is refused as a whole.
QByteArray jobRefusal(quint16 reference, JobError error);

/// The 27-byte reply to setup communication, granting one job at a time and `pduLength` bytes.
QByteArray setupReply(quint16 reference, int pduLength);

/// The connection confirm (ISO 8073): references swapped, the request's parameters given back.
QByteArray connectionConfirm(quint16 clientReference, quint16 ownReference,
                             const QByteArray& parameters);

/// Sets error class and code of a finished reply.
void setJobError(QByteArray& reply, JobError error);

QString describe(ReturnCode code);
QString describe(JobError error);

#endif
