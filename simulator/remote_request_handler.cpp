#include "simulator/remote_request_handler.h"

#include "simulator/item_text.h"

#include <QtEndian>

#include <numeric>

namespace s7200::sim
{

namespace
{

constexpr int TypeOffset = 5;
constexpr int AddressOffset = 7;
constexpr int CountOffset = 11;
constexpr int OriginOffset = 2;
constexpr int ValueOffset = 21;
constexpr int ShortestRecord = ValueOffset + 1;
constexpr int SmdType = 24;

/// How a write's value is encoded and how its address counts.
enum class Encoding { Bits, Bytes, Words, DoubleWords, Elements };

struct RegisterShape {
    SimulatorArea area;
    int replyBytes; ///< of a read, for each count
    Encoding encoding;
    bool readsByBit; ///< a read's address counts bits
};

// By register type. Double bytes for the byte areas: counts are bytes already where types have
// been folded, and the client still expects them doubled.
constexpr RegisterShape Shapes[] = {
    {SimulatorArea::I, 1, Encoding::Bits, true},            // 0 I bit
    {SimulatorArea::Q, 1, Encoding::Bits, true},            // 1 Q bit
    {SimulatorArea::M, 1, Encoding::Bits, true},            // 2 M bit
    {SimulatorArea::S, 1, Encoding::Bits, true},            // 3 S bit
    {SimulatorArea::SM, 1, Encoding::Bits, true},           // 4 SM bit
    {SimulatorArea::V, 2, Encoding::Bits, false},           // 5 V bit, read by byte address
    {SimulatorArea::I, 2, Encoding::Words, false},          // 6 IW
    {SimulatorArea::Q, 2, Encoding::Words, false},          // 7 QW
    {SimulatorArea::M, 2, Encoding::Words, false},          // 8 MW
    {SimulatorArea::S, 2, Encoding::Words, false},          // 9 SW
    {SimulatorArea::SM, 2, Encoding::Words, false},         // 10 SMW
    {SimulatorArea::V, 2, Encoding::Bytes, false},          // 11 VB
    {SimulatorArea::V, 2, Encoding::Words, false},          // 12 VW
    {SimulatorArea::V, 2, Encoding::DoubleWords, false},    // 13 VD
    {SimulatorArea::Timer, 5, Encoding::Elements, false},   // 14 TV
    {SimulatorArea::Counter, 3, Encoding::Elements, false}, // 15 CV
    {SimulatorArea::AIW, 2, Encoding::Words, false},        // 16 AIW
    {SimulatorArea::AQW, 2, Encoding::Words, false},        // 17 AQW
    {SimulatorArea::Timer, 5, Encoding::Bits, false},       // 18 T
    {SimulatorArea::Counter, 3, Encoding::Bits, false},     // 19 C
    {SimulatorArea::I, 2, Encoding::DoubleWords, false},    // 20 ID
    {SimulatorArea::Q, 2, Encoding::DoubleWords, false},    // 21 QD
    {SimulatorArea::M, 2, Encoding::DoubleWords, false},    // 22 MD
    {SimulatorArea::S, 2, Encoding::DoubleWords, false},    // 23 SD
    {SimulatorArea::SM, 2, Encoding::DoubleWords, false},   // 24 SMD
};

const RegisterShape* shapeOf(int registerType)
{
    const bool known = registerType >= 0 && size_t(registerType) < std::size(Shapes);
    return known ? &Shapes[registerType] : nullptr;
}

bool isNumbered(const RegisterShape& shape)
{
    return ControllerMemory::elementSize(shape.area) > 1;
}

quint8 checksum(const QByteArray& bytes)
{
    return std::accumulate(bytes.begin(), bytes.end(), quint8(0),
                           [](quint8 sum, char byte) { return quint8(sum + quint8(byte)); });
}

ItemCode checkWrite(SimulatorArea area, int offset, int bytes)
{
    if (!ControllerMemory::contains(area, offset, bytes))
        return ItemCode::AddressOutOfRange;
    if (!ControllerMemory::isWritable(area, offset))
        return ItemCode::AccessDenied;
    return ItemCode::Success;
}

int byteOr0(const QByteArray& bytes, int index)
{
    return index < bytes.size() ? quint8(bytes.at(index)) : 0;
}

/// The value's elements as the controller keeps them, most significant byte first.
QByteArray controllerBytes(Encoding encoding, const QByteArray& value, int count)
{
    const int width = encoding == Encoding::DoubleWords ? 4 : 2;
    QByteArray bytes;
    for (int i = 0; i < 2 * count; i += width) {
        if (encoding == Encoding::Bytes) {
            bytes.append(char(byteOr0(value, i)));
            continue;
        }
        for (int k = width - 1; k >= 0; --k)
            bytes.append(char(byteOr0(value, i + k)));
    }
    // Double words are counted in words: an odd count ends with a high half.
    return bytes.left(encoding == Encoding::Bytes ? count : 2 * count);
}

} // namespace

RemoteRequestHandler::RemoteRequestHandler(ControllerMemory* memory, int largestPdu)
    : m_memory(memory), m_largestPdu(largestPdu)
{
}

void RemoteRequestHandler::append(const QByteArray& bytes)
{
    m_waiting.append(bytes);
}

std::optional<QByteArray> RemoteRequestHandler::takeRequest()
{
    if (m_waiting.isEmpty())
        return std::nullopt;
    const int length = m_waiting.at(0);
    if (length < ShortestRecord)
        return m_waiting.take(m_waiting.size());
    if (m_waiting.size() < length)
        return std::nullopt;
    return m_waiting.take(length);
}

bool RemoteRequestHandler::isBroken() const
{
    return false;
}

bool RemoteRequestHandler::isServing() const
{
    return true;
}

RemoteRequestHandler::Record RemoteRequestHandler::parseRecord(const QByteArray& bytes)
{
    Record record;
    const int size = int(bytes.size());
    if (size < ShortestRecord || quint8(bytes.at(0)) != size ||
        checksum(bytes.left(size - 1)) != quint8(bytes.at(size - 1)))
        return record;
    record.valid = true;
    record.isWrite = bytes.at(OriginOffset) != 0 || size > ShortestRecord;
    record.registerType = qFromBigEndian<quint16>(bytes.constData() + TypeOffset);
    record.address = qFromBigEndian<qint32>(bytes.constData() + AddressOffset);
    record.count = qFromBigEndian<quint16>(bytes.constData() + CountOffset);
    record.value = bytes.mid(ValueOffset, size - ShortestRecord);
    return record;
}

RequestSummary RemoteRequestHandler::parse(const QByteArray& request)
{
    m_current = parseRecord(request);
    RequestSummary summary;
    if (!m_current.valid) {
        m_waiting.clear();
        return summary;
    }
    summary.kind = RequestSummary::Job;
    summary.touched = touchedBy(m_current);
    return summary;
}

MemoryRange RemoteRequestHandler::touchedBy(const Record& record)
{
    MemoryRange range;
    const RegisterShape* shape = shapeOf(record.registerType);
    if (shape == nullptr)
        return range;
    range.area = shape->area;
    range.first = record.address;
    qint64 units = record.count;
    if (!isNumbered(*shape)) {
        const bool byBit = record.isWrite ? shape->encoding == Encoding::Bits : shape->readsByBit;
        if (!byBit)
            range.first *= 8;
        else if (!record.isWrite)
            range.first -= range.first % 8; // whole bytes are fetched
        if (!record.isWrite)
            units *= 8 * shape->replyBytes;
        else if (shape->encoding != Encoding::Bits)
            units *= shape->encoding == Encoding::Bytes ? 8 : 16;
    }
    range.end = range.first + units;
    return range;
}

/// Of the job or the reply that carries the data between peer and controller.
int RemoteRequestHandler::pduLength() const
{
    const RegisterShape& shape = *shapeOf(m_current.registerType);
    if (!m_current.isWrite)
        return ReadReplyOverhead + m_current.count * shape.replyBytes;
    if (isNumbered(shape))
        return WriteJobOverhead + m_current.count * ControllerMemory::elementSize(shape.area);
    const bool byteEach = shape.encoding == Encoding::Bits || shape.encoding == Encoding::Bytes;
    return WriteJobOverhead + m_current.count * (byteEach ? 1 : 2);
}

QByteArray RemoteRequestHandler::refuse(JobError error)
{
    m_jobError = error;
    return jobRefusal(m_reference, error);
}

QByteArray RemoteRequestHandler::answer(Refusal refusal)
{
    m_itemCode = ItemCode::Success;
    m_jobError = JobError::None;
    m_lastReference = m_reference;
    QByteArray reply;
    if (!m_current.valid || shapeOf(m_current.registerType) == nullptr) {
        reply = refuse(JobError::NotSupported);
    } else {
        reply = m_current.isWrite ? write(refusal) : read(refusal);
        if (refusal == Refusal::Job) {
            m_jobError = JobError::NotSupported;
            setJobError(reply, m_jobError);
        }
        // What the client takes for good: a write counts whatever its item return code.
        const bool good = m_current.isWrite || m_itemCode == ItemCode::Success;
        if (good && m_jobError == JobError::None)
            m_reference = m_reference == 0xFFFF ? 1 : quint16(m_reference + 1);
    }
    return reply + QByteArray(TrailingBytes, '\0');
}

// The client failed this reply or never saw it, and expects the same reference once more.
void RemoteRequestHandler::replySpoiled()
{
    m_reference = m_lastReference;
}

QByteArray RemoteRequestHandler::read(Refusal refusal)
{
    const RegisterShape& shape = *shapeOf(m_current.registerType);
    const int bytes = m_current.count * shape.replyBytes;
    qint64 offset = m_current.address;
    if (isNumbered(shape))
        offset *= ControllerMemory::elementSize(shape.area);
    else if (shape.readsByBit)
        offset /= 8;
    if (refusal == Refusal::Item)
        m_itemCode = ItemCode::NoSuchObject;
    else if (m_current.address < 0 || offset >= ControllerMemory::size(shape.area) || bytes < 1)
        m_itemCode = ItemCode::AddressOutOfRange;
    if (m_itemCode != ItemCode::Success)
        return readRefusal(m_reference, m_itemCode);
    if (pduLength() > m_largestPdu)
        return refuse(JobError::PduTooLong);
    const DataSize unit = isNumbered(shape) ? DataSize::Bytes : DataSize::Bits;
    return readReply(m_reference, unit, m_memory->read(shape.area, int(offset), bytes));
}

QByteArray RemoteRequestHandler::write(Refusal refusal)
{
    if (refusal == Refusal::None && pduLength() > m_largestPdu)
        return refuse(JobError::PduTooLong);
    if (refusal == Refusal::Item)
        m_itemCode = ItemCode::NoSuchObject;
    else if (refusal == Refusal::None)
        m_itemCode = store();
    return writeReply(m_reference, m_itemCode);
}

ItemCode RemoteRequestHandler::store()
{
    const RegisterShape& shape = *shapeOf(m_current.registerType);
    const bool bits = shape.encoding == Encoding::Bits;
    if (m_current.registerType == SmdType) // goes to an area of its own, which does not exist
        return ItemCode::NoSuchObject;
    if (m_current.address < 0 || m_current.count < 1)
        return ItemCode::AddressOutOfRange;
    if (m_current.value.size() < m_current.count * (bits ? 1 : 2))
        return ItemCode::LengthMismatch;
    if (isNumbered(shape)) // timer and counter bits are the controller's own
        return bits ? ItemCode::AccessDenied : storeElements(shape.area);
    if (bits)
        return storeBits(shape.area);
    const QByteArray bytes = controllerBytes(shape.encoding, m_current.value, m_current.count);
    const ItemCode code = checkWrite(shape.area, m_current.address, int(bytes.size()));
    if (code == ItemCode::Success)
        m_memory->write(shape.area, m_current.address, bytes);
    return code;
}

ItemCode RemoteRequestHandler::storeElements(SimulatorArea area)
{
    const int size = ControllerMemory::elementSize(area);
    if (m_current.address > ControllerMemory::size(area) / size - m_current.count)
        return ItemCode::AddressOutOfRange;
    for (int i = 0; i < m_current.count; ++i) {
        const char* value = m_current.value.constData() + 2 * i;
        m_memory->writeValue(area, m_current.address + i, qFromLittleEndian<quint16>(value));
    }
    return ItemCode::Success;
}

ItemCode RemoteRequestHandler::storeBits(SimulatorArea area)
{
    const int firstByte = m_current.address / 8;
    const int bytes = (m_current.address % 8 + m_current.count - 1) / 8 + 1;
    const ItemCode code = checkWrite(area, firstByte, bytes);
    if (code != ItemCode::Success)
        return code;
    for (int i = 0; i < m_current.count; ++i) {
        const int bit = m_current.address + i;
        m_memory->writeBit(area, bit / 8, bit % 8, m_current.value.at(i) == 1);
    }
    return ItemCode::Success;
}

QString RemoteRequestHandler::description() const
{
    if (!m_current.valid)
        return QStringLiteral("record with a wrong length or checksum refused");
    const RegisterShape* shape = shapeOf(m_current.registerType);
    if (shape == nullptr)
        return QStringLiteral("register type %1 refused: ").arg(m_current.registerType) +
               describe(m_jobError);
    // Reads of bits fetch whole bytes.
    const bool byBit =
        shape->encoding == Encoding::Bits && (m_current.isWrite || shape->readsByBit);
    const bool inUnits = byBit || isNumbered(*shape);
    ItemText text;
    text.isWrite = m_current.isWrite;
    text.area = shape->area;
    text.isBit = byBit && m_current.isWrite;
    const bool analog = shape->area == SimulatorArea::AIW || shape->area == SimulatorArea::AQW;
    const bool words = m_current.isWrite ? shape->encoding != Encoding::Bytes : analog;
    text.elementBytes = words ? 2 : 1;
    text.address = int(qMin<qint64>(qint64(m_current.address) * (inUnits ? 1 : 8), 0x7FFFFFFF));
    text.count = m_current.count;
    const int whole = qMin(m_current.count, int(m_current.value.size()) / 2);
    text.data = shape->encoding == Encoding::Bits
                    ? m_current.value
                    : controllerBytes(shape->encoding, m_current.value, whole);
    return text.line(m_itemCode, m_jobError);
}

} // namespace s7200::sim
