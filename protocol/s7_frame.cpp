#include "protocol/s7_frame.h"

#include "core/siemens_s7_200.h"

#include <QtEndian>

#include <cstring>
#include <utility>

namespace cp243
{

namespace
{

/// A read job with its variable fields 0.
// clang-format off
const uchar JobTemplate[JobItemEnd] = {
    0x03, 0x00, 0x00, JobItemEnd, // TPKT: version, reserved, length
    0x02, 0xF0, 0x80,             // DT TPDU, number 0, end of transmission
    0x32, 0x01, 0x00, 0x00,       // S7 job, redundancy identification
    0x00, 0x00,                   // PDU reference
    0x00, 0x0E, 0x00, 0x00,       // parameter length 14, data length
    FunctionRead, 0x01,           // one item
    0x12, 0x0A, 0x10,             // its address in 10 bytes, S7ANY
    0x00, 0x00, 0x00,             // transport size, item length
    0x00, 0x00, 0x00,             // DB number, area
    0x00, 0x00, 0x00};            // start address
// clang-format on

void put16(uchar* frame, int offset, qint64 value)
{
    qToBigEndian(quint16(value), frame + offset);
}

void putHeader(uchar* frame, int station, const S7Item& item)
{
    std::memcpy(frame, JobTemplate, sizeof JobTemplate);
    put16(frame, JobPduReference, map_list.value(station).pdu_ref);
    // The 32-bit form of the address starts at the area byte, which is written after it.
    qToBigEndian(quint32(item.startAddress), frame + JobArea);
    frame[JobTransportSize] = item.transportSize;
    put16(frame, JobItemLength, item.length);
    frame[JobDbNumberLow] = item.dbNumber;
    frame[JobArea] = item.area;
}

} // namespace

QByteArray readJob(int station, const S7Item& item)
{
    QByteArray frame(JobItemEnd, Qt::Uninitialized);
    putHeader(reinterpret_cast<uchar*>(frame.data()), station, item);
    return frame;
}

QByteArray writeJob(int station, const S7Item& item, qint64 declaredBytes, quint8 dataTransportSize,
                    qint64 dataItemLength, int frameLength)
{
    uchar header[JobData] = {};
    putHeader(header, station, item);
    header[JobFunction] = FunctionWrite;
    put16(header, JobTpktLength, JobData + declaredBytes);
    put16(header, JobDataLength, JobData - JobItemEnd + declaredBytes);
    header[JobDataTransportSize] = dataTransportSize;
    put16(header, JobDataItemLength, dataItemLength);
    QByteArray frame(frameLength, '\0');
    std::memcpy(frame.data(), header, size_t(qMin(frameLength, int(JobData))));
    return frame;
}

void recordPending(QByteArray frame, const ExpectedReply& expected, const RW_VAR& var)
{
    const int length = int(frame.size());
    PLC_driver.protocol_list.append(
        {std::move(frame), length, expected.length, expected.dataOffset, expected.dataLength, var});
}

void startBatch(int frames)
{
    Q_ASSERT(PLC_driver.com_info);
    PLC_driver.com_info->frame_index = 0;
    PLC_driver.com_info->frame_count = frames;
}

} // namespace cp243
