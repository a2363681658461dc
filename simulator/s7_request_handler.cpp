#include "simulator/s7_request_handler.h"

#include "simulator/item_text.h"

#include <QtEndian>

#include <algorithm>

namespace s7200::sim
{

using namespace wire;

namespace
{

constexpr int ProgramDataBlock = 1; // V memory is addressed as data block 1

struct AreaRow {
    AreaCode code;
    bool exists;
    SimulatorArea area;
};

constexpr AreaRow Areas[] = {
    {AreaCode::I, true, SimulatorArea::I},
    {AreaCode::Q, true, SimulatorArea::Q},
    {AreaCode::M, true, SimulatorArea::M},
    {AreaCode::S, true, SimulatorArea::S},
    {AreaCode::SM, true, SimulatorArea::SM},
    {AreaCode::V, true, SimulatorArea::V},
    {AreaCode::AIW, true, SimulatorArea::AIW},
    {AreaCode::AQW, true, SimulatorArea::AQW},
    {AreaCode::Timer, true, SimulatorArea::Timer},
    {AreaCode::Counter, true, SimulatorArea::Counter},
    // Double words of SM are written so: told by that name, and refused as any area that is not.
    {AreaCode::SpecialWrites, false, SimulatorArea::SM},
};

struct SizeRow {
    ItemSize size;
    int bytes;
};

constexpr SizeRow ByteAreaSizes[] = {
    {ItemSize::Bit, 1}, {ItemSize::Byte, 1}, {ItemSize::Word, 2}, {ItemSize::DoubleWord, 4}};

const AreaRow* findArea(const S7Request& item)
{
    for (const AreaRow& row : Areas) {
        const bool rightBlock = row.area != SimulatorArea::V || item.dbNumber == ProgramDataBlock;
        if (int(row.code) == item.area && rightBlock)
            return &row;
    }
    return nullptr;
}

/// Bytes of one element of the item, 0 if its area does not have this transport size.
int transportBytes(const S7Request& item, SimulatorArea area)
{
    const int elementSize = ControllerMemory::elementSize(area);
    if (elementSize > 1)
        return item.transportSize == item.area ? elementSize : 0;
    for (const SizeRow& row : ByteAreaSizes) {
        if (int(row.size) == item.transportSize)
            return row.bytes;
    }
    return 0;
}

/// What a job is about, whether it can be served or not.
MemoryRange touchedBy(const S7Request& item)
{
    MemoryRange range;
    range.first = item.address;
    int units = item.transportSize == int(ItemSize::Bit) ? 1 : 8; // of one element
    if (const AreaRow* row = findArea(item)) {
        range.area = row->area;
        if (ControllerMemory::elementSize(row->area) > 1)
            units = 1;
        else if (units > 1)
            units *= std::max(transportBytes(item, row->area), 1);
    }
    range.end = range.first + qint64(item.count) * units;
    return range;
}

/// True if the data of a write are those that its item announces. The length of a block of bits
/// counts its bytes although the transport size says bits; peers send it so and it is taken.
bool dataFits(const S7Request& write, int bytes, bool singleBit)
{
    if (write.data.size() != bytes)
        return false;
    if (singleBit)
        return write.dataTransportSize == int(DataSize::Bit) && write.dataLength == 1;
    if (write.dataTransportSize == int(DataSize::Bits))
        return write.dataLength == bytes * 8 || write.dataLength == bytes;
    return write.dataTransportSize == int(DataSize::Bytes) && write.dataLength == bytes;
}

} // namespace

S7RequestHandler::S7RequestHandler(ControllerMemory* memory, int largestPdu,
                                   std::optional<quint16> tsap)
    : m_memory(memory), m_largestPdu(largestPdu), m_tsap(tsap)
{
}

void S7RequestHandler::append(const QByteArray& bytes)
{
    m_reassembler.append(bytes);
}

std::optional<QByteArray> S7RequestHandler::takeRequest()
{
    return m_broken ? std::nullopt : m_reassembler.takeFrame();
}

bool S7RequestHandler::isBroken() const
{
    return m_broken || m_reassembler.isBroken();
}

bool S7RequestHandler::isServing() const
{
    return m_grantedPdu > 0;
}

RequestSummary S7RequestHandler::parse(const QByteArray& request)
{
    m_current = parseS7Request(request);
    RequestSummary summary;
    switch (m_current.kind) {
    case S7Request::Connect:
        summary.kind = RequestSummary::Connect;
        break;
    case S7Request::Setup:
        summary.kind = RequestSummary::Setup;
        break;
    case S7Request::Read:
    case S7Request::Write:
        summary.kind = RequestSummary::Job;
        summary.touched = touchedBy(m_current);
        break;
    default:
        break;
    }
    return summary;
}

QByteArray S7RequestHandler::answer(Refusal refusal)
{
    m_itemCode = ItemCode::Success;
    m_jobError = JobError::None;
    if (m_current.kind == S7Request::EmptyTpdu)
        return QByteArray();
    if (m_current.kind == S7Request::Connect)
        return connect();
    if (m_current.kind == S7Request::Malformed || !m_connected) {
        m_broken = true;
        return QByteArray();
    }
    if (m_current.kind == S7Request::Setup) {
        if (refusal == Refusal::Job)
            return refuseJob(JobError::NotSupported);
        m_grantedPdu = std::min(m_current.requestedPdu, m_largestPdu);
        return setupReply(m_current.reference, m_grantedPdu);
    }
    if (m_current.kind == S7Request::Unsupported || m_grantedPdu == 0)
        return refuseJob(JobError::NotSupported);
    if (m_current.pduLength > m_grantedPdu)
        return refuseJob(JobError::PduTooLong);
    return serveJob(refusal);
}

// A module takes one connection request on a TCP connection and drops it at a second.
QByteArray S7RequestHandler::connect()
{
    if (m_connected) {
        m_broken = true;
        return QByteArray();
    }
    const auto called = tsapParameter(m_current.connectParameters, CalledTsap);
    if (m_tsap && called != m_tsap) {
        m_broken = true;
        return disconnectRequest(m_current.clientReference, DisconnectReason::AddressUnknown);
    }
    m_connected = true;
    return connectionConfirm(m_current.clientReference, 1, m_current.connectParameters);
}

QByteArray S7RequestHandler::serveJob(Refusal refusal)
{
    if (refusal == Refusal::Item)
        m_itemCode = ItemCode::NoSuchObject;
    QByteArray reply;
    if (m_current.kind == S7Request::Read) {
        reply = readItem(refusal);
    } else {
        if (refusal == Refusal::None)
            m_itemCode = writeItem();
        reply = writeReply(m_current.reference, m_itemCode);
    }
    // Of the right length, so that the error class alone tells.
    if (refusal == Refusal::Job) {
        m_jobError = JobError::NotSupported;
        setJobError(reply, m_jobError);
    }
    return reply;
}

QByteArray S7RequestHandler::refuseJob(JobError error)
{
    m_jobError = error;
    return jobRefusal(m_current.reference, error);
}

QByteArray S7RequestHandler::readItem(Refusal refusal)
{
    const Place item = place(m_current);
    if (refusal != Refusal::Item)
        m_itemCode = item.code;
    if (m_itemCode != ItemCode::Success)
        return readRefusal(m_current.reference, m_itemCode);
    if (item.bytes + ReadReplyOverhead > m_grantedPdu)
        return refuseJob(JobError::PduTooLong);
    QByteArray payload = m_memory->read(item.area, item.offset, item.bytes);
    if (item.bit >= 0) {
        payload[0] = char(payload.at(0) >> item.bit & 1);
        return readReply(m_current.reference, DataSize::Bit, payload);
    }
    const bool elements = ControllerMemory::elementSize(item.area) > 1;
    return readReply(m_current.reference, elements ? DataSize::Bytes : DataSize::Bits, payload);
}

ItemCode S7RequestHandler::writeItem()
{
    const Place item = place(m_current);
    if (item.code != ItemCode::Success)
        return item.code;
    if (!ControllerMemory::isWritable(item.area, item.offset))
        return ItemCode::AccessDenied;
    if (!dataFits(m_current, item.bytes, item.bit >= 0))
        return ItemCode::LengthMismatch;
    const int elementSize = ControllerMemory::elementSize(item.area);
    if (item.bit >= 0) {
        m_memory->writeBit(item.area, item.offset, item.bit, (m_current.data.at(0) & 1) != 0);
    } else if (elementSize > 1) {
        for (int i = 0; i < m_current.count; ++i) {
            const char* value = m_current.data.constData() + (i + 1) * elementSize - 2;
            m_memory->writeValue(item.area, m_current.address + i, qFromBigEndian<quint16>(value));
        }
    } else {
        m_memory->write(item.area, item.offset, m_current.data);
    }
    return ItemCode::Success;
}

S7RequestHandler::Place S7RequestHandler::place(const S7Request& item)
{
    Place result;
    const AreaRow* row = findArea(item);
    if (row == nullptr || !row->exists) {
        result.code = ItemCode::NoSuchObject;
        return result;
    }
    result.area = row->area;
    const int elementBytes = transportBytes(item, row->area);
    const bool singleBit = item.transportSize == int(ItemSize::Bit);
    if (elementBytes == 0 || (singleBit && item.count != 1)) {
        result.code = ItemCode::TypeNotSupported;
        return result;
    }
    const int elementSize = ControllerMemory::elementSize(row->area);
    const bool numbered = elementSize > 1;
    result.offset = numbered ? item.address * elementSize : item.address / 8;
    result.bytes = item.count * elementBytes;
    if (singleBit)
        result.bit = item.address % 8;
    const bool aligned = numbered || singleBit || item.address % 8 == 0;
    if (!aligned || !ControllerMemory::contains(row->area, result.offset, result.bytes))
        result.code = ItemCode::AddressOutOfRange;
    return result;
}

QString S7RequestHandler::description() const
{
    const bool connects = m_current.kind == S7Request::Connect;
    if (m_broken && m_connected == connects)
        return QStringLiteral("request out of turn: connection closed");
    switch (m_current.kind) {
    case S7Request::Malformed:
        return QStringLiteral("bytes that are no S7 request: connection closed");
    case S7Request::EmptyTpdu:
        return QStringLiteral("empty data TPDU");
    case S7Request::Connect:
        return m_broken ? QStringLiteral("connection request for another TSAP than %1 refused")
                              .arg(tsapText(m_tsap.value_or(0)))
                        : QStringLiteral("connection request -> ok");
    case S7Request::Setup:
        if (m_jobError != JobError::None)
            return QStringLiteral("setup communication refused: ") + describe(m_jobError);
        return QStringLiteral("setup communication, PDU length %1 -> %2")
            .arg(m_current.requestedPdu)
            .arg(m_grantedPdu);
    case S7Request::Unsupported:
        return QStringLiteral("unknown job refused: ") + describe(m_jobError);
    default:
        break;
    }
    const AreaRow* row = findArea(m_current);
    ItemText text;
    text.known = row != nullptr;
    text.area = row != nullptr ? row->area : SimulatorArea::V;
    text.isBit = m_current.transportSize == int(ItemSize::Bit);
    text.elementBytes = row != nullptr ? transportBytes(m_current, row->area) : 0;
    text.address = m_current.address;
    text.count = m_current.count;
    text.data = m_current.data;
    text.isWrite = m_current.kind == S7Request::Write;
    return text.line(m_itemCode, m_jobError);
}

} // namespace s7200::sim
