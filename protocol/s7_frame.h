#ifndef PROTOCOL_S7_FRAME_H
#define PROTOCOL_S7_FRAME_H

/// The one way to build an S7 job with one item, and to record it as pending. Layout: TPKT (RFC
/// 1006), DT TPDU (ISO 8073), S7 job header, one item; a write adds a data item.

#include <siemens_s7_200_cp243/request_records.h>

#include <QtGlobal>

namespace cp243
{

/// Offsets in a job.
enum JobOffset {
    JobTpktLength = 2,
    JobPduReference = 11,
    JobDataLength = 15,
    JobFunction = 17,
    JobTransportSize = 22,
    JobItemLength = 23,
    JobDbNumberLow = 26,
    JobArea = 27,
    JobStartAddress = 28,
    JobItemEnd = 31,
    JobDataTransportSize = 32,
    JobDataItemLength = 33,
    JobData = 35
};

constexpr quint8 FunctionRead = 0x04;
constexpr quint8 FunctionWrite = 0x05;

/// Transport sizes of an item.
constexpr quint8 SizeBit = 0x01;
constexpr quint8 SizeByte = 0x02;
constexpr quint8 SizeWord = 0x04;
constexpr quint8 SizeCounter = 0x1E;
constexpr quint8 SizeTimer = 0x1F;

/// Offset of the payload in a read reply, and the length of a reply without payload.
constexpr int ReadReplyHeader = 25;
constexpr int WriteReplyLength = 22;

/// Item fields of a job. Numbers are cut to the width of their field, as the wire has it.
struct S7Item {
    quint8 transportSize;
    qint64 length;       ///< In units of the transport size; low 16 bits.
    quint8 dbNumber;     ///< 1 for V memory, else 0.
    quint8 area;         ///< S7 area code.
    qint64 startAddress; ///< In bits, or a timer or counter number; low 24 bits.
};

/// A read job of 31 bytes for the request's station.
QByteArray readJob(int station, const S7Item& item);

/// A write job of `frameLength` bytes that declares `declaredBytes` of data, all of them 0x00; the
/// length may be more or less than declared, down to 0.
QByteArray writeJob(int station, const S7Item& item, qint64 declaredBytes, quint8 dataTransportSize,
                    qint64 dataItemLength, int frameLength);

/// What the reply to a frame must look like.
struct ExpectedReply {
    int length;
    int dataOffset;
    int dataLength;
};

/// Appends the frame to protocol_list as awaiting its reply.
void recordPending(QByteArray frame, const ExpectedReply& expected, const RW_VAR& var);

/// Marks the settings record for a transaction of `frames` frames, none answered yet.
void startBatch(int frames);

} // namespace cp243

#endif
