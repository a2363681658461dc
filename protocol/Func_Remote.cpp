#include "protocol/Func_Remote.h"

#include "core/checked_int.h"
#include "core/register_properties.h"
#include "image/host_values.h"
#include "protocol/Func_Check.h"
#include "protocol/s7_frame.h"

#include <QtEndian>

#include <limits>

using namespace cp243;

namespace
{

enum RecordOffset {
    RecordLength = 0,
    RecordHostKey = 1,
    RecordOrigin = 2,
    RecordLinkId = 3,
    RecordStation = 4,
    RecordRegType = 5,
    RecordAddress = 7,
    RecordCount = 11,
    RecordReserved1 = 13,
    RecordReserved2 = 17,
    RecordHeader = 21 ///< Where a write's value, or the checksum, follows.
};
constexpr int ChecksumBytes = 1;

/// The peer's replies are two bytes longer than an S7 reply with the same content.
constexpr int PeerTrailer = 2;

/// The header of a record followed by `value`, with room for the checksum.
QByteArray recordOf(const RW_VAR& var, const QByteArray& value)
{
    QByteArray record(RecordHeader, '\0');
    record.append(value);
    record.append('\0');
    uchar* bytes = reinterpret_cast<uchar*>(record.data());
    bytes[RecordLength] = uchar(record.size());
    bytes[RecordHostKey] = uchar(var.host_key);
    bytes[RecordOrigin] = uchar(var.origin);
    bytes[RecordLinkId] = uchar(var.link_id);
    bytes[RecordStation] = uchar(var.station);
    qToBigEndian(quint16(var.reg_type), bytes + RecordRegType);
    qToBigEndian(qint32(var.address), bytes + RecordAddress);
    qToBigEndian(quint16(var.count), bytes + RecordCount);
    qToBigEndian(qint32(var.reserved1), bytes + RecordReserved1);
    qToBigEndian(qint32(var.reserved2), bytes + RecordReserved2);
    return record;
}

/// Sums every byte before the checksum; CalSUM takes at most 65,535 at a time.
void closeWithChecksum(QByteArray& record)
{
    uchar* bytes = reinterpret_cast<uchar*>(record.data());
    const int end = int(record.size()) - ChecksumBytes;
    constexpr int Longest = std::numeric_limits<unsigned short>::max();
    unsigned sum = 0;
    for (int at = 0; at < end; at += Longest)
        sum += CalSUM(bytes + at, static_cast<unsigned short>(qMin(Longest, end - at)));
    bytes[end] = uchar(sum);
}

/// Data bytes per count of a remote read, -1 for an unknown register type. Doubled for byte areas
/// although the count of a listed read is in bytes already. Deliberate: docs/oddities.md, Remote
/// access.
int dataBytesPerCount(int regType)
{
    const RegisterTypeInfo* type = registerTypeInfo(regType);
    if (!type)
        return -1;
    switch (type->width) {
    case Width::Bit:
        return regType == Type_V ? 2 : 1;
    case Width::Timer:
    case Width::TimerBit:
        return 5;
    case Width::Counter:
    case Width::CounterBit:
        return 3;
    default:
        return 2;
    }
}

} // namespace

void Remote_ReadVar(RW_VAR* var)
{
    QByteArray record = recordOf(*var, QByteArray());
    closeWithChecksum(record);
    const int perCount = dataBytesPerCount(var->reg_type);
    ExpectedReply expected = {0, 0, 0};
    if (perCount > 0) {
        const qint64 data = perCount * qint64(var->count);
        expected = {clampToInt(data + ReadReplyHeader + PeerTrailer), ReadReplyHeader,
                    clampToInt(data)};
    }
    recordPending(record, expected, *var);
    startBatch(1);
}

void Remote_WriteVar(RW_VAR* var)
{
    QByteArray record = recordOf(*var, var->value);
    closeWithChecksum(record);
    recordPending(record, {WriteReplyLength + PeerTrailer, 0, 0}, *var);
    // No batch is started: the reply's path depends on where the previous transaction left
    // frame_index, see DealDataOfRemoteArea. Deliberate: docs/oddities.md, Remote access.
    WriteDataToLocal(var);
}
