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
    bool readable;
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
    {AreaCode::SpecialWrites, false, SimulatorArea::SM}, // its double words are written so
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
        const bool allowed = row.readable || item.kind == S7Request::Write;
        const bool rightBlock = row.area != SimulatorArea::V || item.dbNumber == ProgramDataBlock;
        if (int(row.code) == item.area && allowed && rightBlock)
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

S7RequestHandler::S7RequestHandler(ControllerMemory* controllerMemory, int largestPduLength)
    : memory(controllerMemory), largestPdu(largestPduLength)
{
}

void S7RequestHandler::append(const QByteArray& bytes)
{
    reassembler.append(bytes);
}

std::optional<QByteArray> S7RequestHandler::takeRequest()
{
    return broken ? std::nullopt : reassembler.takeFrame();
}

bool S7RequestHandler::isBroken() const
{
    return broken || reassembler.isBroken();
}

RequestSummary S7RequestHandler::parse(const QByteArray& request)
{
    current = parseS7Request(request);
    RequestSummary summary;
    switch (current.kind) {
    case S7Request::Connect:
        summary.kind = RequestSummary::Connect;
        break;
    case S7Request::Setup:
        summary.kind = RequestSummary::Setup;
        break;
    case S7Request::Read:
    case S7Request::Write: {
        const AreaRow* row = findArea(current);
        const bool numbered = row != nullptr && ControllerMemory::elementSize(row->area) > 1;
        summary.kind = RequestSummary::Job;
        summary.address = numbered ? current.address : current.address / 8;
        break;
    }
    default:
        break;
    }
    return summary;
}

QByteArray S7RequestHandler::answer(Refusal refusal)
{
    returnCode = ItemCode::Success;
    jobError = JobError::None;
    if (current.kind == S7Request::EmptyTpdu)
        return QByteArray();
    if (current.kind == S7Request::Connect)
        return connect();
    if (current.kind == S7Request::Malformed || !connected) {
        broken = true;
        return QByteArray();
    }
    if (current.kind == S7Request::Setup) {
        grantedPdu = std::min(current.requestedPdu, largestPdu);
        return setupReply(current.reference, grantedPdu);
    }
    if (current.kind == S7Request::Unsupported || grantedPdu == 0)
        return refuseJob(JobError::NotSupported);
    if (current.pduLength > grantedPdu)
        return refuseJob(JobError::PduTooLong);
    return serveJob(refusal);
}

// A module takes one connection request on a TCP connection and drops it at a second.
QByteArray S7RequestHandler::connect()
{
    if (connected) {
        broken = true;
        return QByteArray();
    }
    connected = true;
    return connectionConfirm(current.clientReference, 1, current.connectParameters);
}

QByteArray S7RequestHandler::serveJob(Refusal refusal)
{
    if (refusal == Refusal::Item)
        returnCode = ItemCode::NoSuchObject;
    QByteArray reply;
    if (current.kind == S7Request::Read) {
        reply = readItem(refusal);
    } else {
        if (refusal == Refusal::None)
            returnCode = writeItem();
        reply = writeReply(current.reference, returnCode);
    }
    // Of the right length, so that the error class alone tells.
    if (refusal == Refusal::Job) {
        jobError = JobError::NotSupported;
        setJobError(reply, jobError);
    }
    return reply;
}

QByteArray S7RequestHandler::refuseJob(JobError error)
{
    jobError = error;
    return jobRefusal(current.reference, error);
}

QByteArray S7RequestHandler::readItem(Refusal refusal)
{
    const Place item = place(current);
    if (refusal != Refusal::Item)
        returnCode = item.code;
    if (returnCode != ItemCode::Success)
        return readRefusal(current.reference, returnCode);
    if (item.bytes + ReadReplyOverhead > grantedPdu)
        return refuseJob(JobError::PduTooLong);
    QByteArray payload = memory->read(item.area, item.offset, item.bytes);
    if (item.bit >= 0) {
        payload[0] = char(payload.at(0) >> item.bit & 1);
        return readReply(current.reference, DataSize::Bit, payload);
    }
    const bool elements = ControllerMemory::elementSize(item.area) > 1;
    return readReply(current.reference, elements ? DataSize::Bytes : DataSize::Bits, payload);
}

ItemCode S7RequestHandler::writeItem()
{
    const Place item = place(current);
    if (item.code != ItemCode::Success)
        return item.code;
    if (!ControllerMemory::isWritable(item.area, item.offset))
        return ItemCode::AccessDenied;
    if (!dataFits(current, item.bytes, item.bit >= 0))
        return ItemCode::LengthMismatch;
    const int elementSize = ControllerMemory::elementSize(item.area);
    if (item.bit >= 0) {
        memory->writeBit(item.area, item.offset, item.bit, (current.data.at(0) & 1) != 0);
    } else if (elementSize > 1) {
        for (int i = 0; i < current.count; ++i) {
            const char* value = current.data.constData() + (i + 1) * elementSize - 2;
            memory->writeValue(item.area, current.address + i, qFromBigEndian<quint16>(value));
        }
    } else {
        memory->write(item.area, item.offset, current.data);
    }
    return ItemCode::Success;
}

S7RequestHandler::Place S7RequestHandler::place(const S7Request& item)
{
    Place result;
    const AreaRow* row = findArea(item);
    if (row == nullptr) {
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
    if (broken && connected == (current.kind == S7Request::Connect))
        return QStringLiteral("request out of turn: connection closed");
    switch (current.kind) {
    case S7Request::Malformed:
        return QStringLiteral("bytes that are no S7 request: connection closed");
    case S7Request::EmptyTpdu:
        return QStringLiteral("empty data TPDU");
    case S7Request::Connect:
        return QStringLiteral("connection request -> ok");
    case S7Request::Setup:
        return QStringLiteral("setup communication, PDU length %1 -> %2")
            .arg(current.requestedPdu)
            .arg(grantedPdu);
    case S7Request::Unsupported:
        return QStringLiteral("unknown job refused: ") + describe(jobError);
    default:
        break;
    }
    const AreaRow* row = findArea(current);
    ItemText text;
    text.known = row != nullptr;
    text.area = row != nullptr ? row->area : SimulatorArea::V;
    text.isBit = current.transportSize == int(ItemSize::Bit);
    text.elementBytes = row != nullptr ? transportBytes(current, row->area) : 0;
    text.address = current.address;
    text.count = current.count;
    text.data = current.data;
    text.isWrite = current.kind == S7Request::Write;
    return text.line(returnCode, jobError);
}

} // namespace s7200::sim
