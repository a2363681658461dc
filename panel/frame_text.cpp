#include "panel/frame_text.h"

#include "wire/s7_fields.h"

#include <siemens_s7_200_cp243/host_interface.h>
#include <siemens_s7_200_cp243/register_types.h>

#include <algorithm>

namespace s7200::panel
{

using namespace s7200::wire;

namespace
{

/// What an area of a job is to people and to the driver.
struct JobArea {
    AreaCode code;
    const char* bytes; ///< Name of one byte, or of a timer, counter or analogue word.
    const char* bits;
    int bitType;  ///< Register types: of a bit write,
    int wordType; ///< and of reads and word writes.
    ItemSize readSize;
};

constexpr JobArea JobAreas[] = {
    {AreaCode::I, "IB", "I", -1, Type_IW, ItemSize::Byte},
    {AreaCode::Q, "QB", "Q", Type_Q, Type_QW, ItemSize::Byte},
    {AreaCode::M, "MB", "M", Type_M, Type_MW, ItemSize::Byte},
    {AreaCode::S, "SB", "S", Type_S, Type_SW, ItemSize::Byte},
    {AreaCode::SM, "SMB", "SM", Type_SM, Type_SMW, ItemSize::Byte},
    {AreaCode::SpecialWrites, "SMB", "SM", -1, Type_SMD, ItemSize::Byte},
    {AreaCode::V, "VB", "V", Type_V, Type_VW, ItemSize::Byte},
    {AreaCode::AIW, "AIW", "AI", -1, Type_AIW, ItemSize::Word},
    {AreaCode::AQW, "AQW", "AQ", -1, Type_AQW, ItemSize::Word},
    {AreaCode::Timer, "T", "T", -1, Type_TV, ItemSize::Timer},
    {AreaCode::Counter, "C", "C", -1, Type_CV, ItemSize::Counter},
};

/// Failure codes come in rows of twelve, by the request's host_key.
constexpr int HostKeys = 12;

constexpr int TimerBytes = 5; // state, two spare bytes, value
constexpr int CounterBytes = 3;

/// The fields of a job in which there is a single item, from its S7 header on.
struct Field {
    int offset;
    int length;
    const char* name;
};

constexpr Field CommonFields[] = {
    {0, 1, "TPKT version"},
    {1, 1, "TPKT reserved byte"},
    {TpktLengthOffset, 2, "TPKT length"},
    {CotpLengthOffset, 1, "TPDU header length"},
    {TpduTypeOffset, 1, "TPDU type"},
};
constexpr Field ConnectFields[] = {
    {DestinationReferenceOffset, 2, "destination reference"},
    {SourceReferenceOffset, 2, "source reference"},
    {CotpClassOffset, 1, "class and options"},
};
constexpr Field S7Fields[] = {
    {EndOfTpduOffset, 1, "TPDU number"},
    {ProtocolIdOffset, 1, "protocol identifier"},
    {RosctrOffset, 1, "ROSCTR"},
    {9, 2, "redundancy identification"},
    {PduReferenceOffset, 2, "PDU reference"},
    {ParameterLengthOffset, 2, "parameter length"},
    {DataLengthOffset, 2, "data length"},
    {JobFunctionOffset, 1, "function"},
};
constexpr Field SetupFields[] = {
    {18, 1, "reserved byte"},
    {19, 4, "parallel jobs"},
    {JobPduLengthOffset, 2, "PDU length"},
};
constexpr Field JobFields[] = {
    {JobItemCountOffset, 1, "item count"},
    {JobItemOffset, 1, "variable kind"},
    {20, 1, "address length"},
    {JobSyntaxOffset, 1, "syntax"},
    {JobTransportSizeOffset, 1, "transport size"},
    {JobItemLengthOffset, 2, "item length"},
    {JobDbNumberOffset, 2, "data block"},
    {JobAreaOffset, 1, "area"},
    {JobAddressOffset, 3, "start address"},
    {JobDataOffset, 1, "data item's reserved byte"},
    {JobDataSizeOffset, 1, "data transport size"},
    {JobDataLengthOffset, 2, "data item length"},
    {JobPayloadOffset, 65535, "data"},
};

template <typename Table>
const char* fieldAt(const Table& table, int offset)
{
    for (const Field& field : table) {
        if (offset >= field.offset && offset < field.offset + field.length)
            return field.name;
    }
    return nullptr;
}

/// Of a connection request, behind its fixed part.
QString parameterName(const QByteArray& frame, int offset)
{
    int at = CotpParametersOffset;
    while (at < frame.size() && offset >= at + 2 + byteAt(frame, at + 1))
        at += 2 + byteAt(frame, at + 1);
    switch (byteAt(frame, at)) {
    case CallingTsap:
        return QStringLiteral("calling TSAP");
    case CalledTsap:
        return QStringLiteral("called TSAP");
    case 0xC0:
        return QStringLiteral("TPDU size");
    default:
        return QStringLiteral("parameter 0x%1").arg(byteAt(frame, at), 2, 16, QLatin1Char('0'));
    }
}

const JobArea* areaOf(const QByteArray& frame)
{
    const auto found =
        std::find_if(std::begin(JobAreas), std::end(JobAreas), [&](const JobArea& area) {
            return int(area.code) == byteAt(frame, JobAreaOffset);
        });
    return found == std::end(JobAreas) ? nullptr : found;
}

int startAddress(const QByteArray& frame)
{
    return byteAt(frame, JobAddressOffset) << 16 | wordAt(frame, JobAddressOffset + 1);
}

bool isFunction(const QByteArray& frame, Function function)
{
    return isS7Pdu(frame) && byteAt(frame, RosctrOffset) == int(Rosctr::Job) &&
           byteAt(frame, JobFunctionOffset) == int(function);
}

bool isSingleItemJob(const QByteArray& frame)
{
    return (isFunction(frame, Function::Read) || isFunction(frame, Function::Write)) &&
           frame.size() >= JobDataOffset && byteAt(frame, JobItemCountOffset) == 1 &&
           byteAt(frame, JobSyntaxOffset) == AnySyntax;
}

/// So many of an area's bytes, timers, counters or analogue words from the first on.
QString rangeText(const JobArea& area, int first, int count)
{
    const int last = first + (count - 1) * (area.readSize == ItemSize::Word ? 2 : 1);
    const QString name = QLatin1String(area.bytes);
    if (last <= first)
        return name + QString::number(first);
    return QStringLiteral("%1%2 to %1%3").arg(name).arg(first).arg(last);
}

QString describeItem(const QByteArray& frame)
{
    const JobArea* area = areaOf(frame);
    const int address = startAddress(frame);
    if (area == nullptr)
        return QStringLiteral("area 0x%1")
            .arg(byteAt(frame, JobAreaOffset), 2, 16, QLatin1Char('0'));
    const auto size = ItemSize(byteAt(frame, JobTransportSizeOffset));
    if (size == ItemSize::Bit)
        return QStringLiteral("%1%2.%3")
            .arg(QLatin1String(area->bits))
            .arg(address / 8)
            .arg(address % 8);
    const bool numbered = area->readSize == ItemSize::Timer || area->readSize == ItemSize::Counter;
    const int step = area->readSize == ItemSize::Word ? 2 : 1;
    const int unit = size == ItemSize::Word && step == 1 ? 2 : 1; // units in one of the item's
    const int first = numbered ? address : address / 8;
    return rangeText(*area, first, wordAt(frame, JobItemLengthOffset) * unit);
}

QByteArray swapped(const QByteArray& bytes, int group)
{
    QByteArray result;
    for (int at = 0; at < bytes.size(); at += group) {
        QByteArray part = bytes.mid(at, group);
        std::reverse(part.begin(), part.end());
        result += part;
    }
    return result;
}

/// Host encoding of timers or counters: the last two of each element's bytes.
QByteArray valuesOf(const QByteArray& payload, int elementBytes)
{
    QByteArray values;
    for (int at = 0; at < payload.size(); at += elementBytes)
        values += swapped(payload.mid(at + elementBytes - 2, 2), 2);
    return values;
}

/// Fills in what is written; false if the driver never writes like that.
bool addWrite(const QByteArray& frame, const JobArea& area, RW_VAR* request)
{
    const QByteArray payload = frame.mid(JobPayloadOffset);
    request->origin = 1;
    switch (ItemSize(byteAt(frame, JobTransportSizeOffset))) {
    case ItemSize::Bit:
        request->reg_type = area.bitType;
        request->address = startAddress(frame);
        request->value = payload.left(1);
        return area.bitType >= 0 && request->count == 1;
    case ItemSize::Word:
        // A double word and VB give the same frame as words do.
        request->value = swapped(payload, area.code == AreaCode::SpecialWrites ? 4 : 2);
        return area.code != AreaCode::I && area.code != AreaCode::AIW &&
               payload.size() == 2 * request->count;
    case ItemSize::Timer:
        request->value = valuesOf(payload, TimerBytes);
        return area.code == AreaCode::Timer && payload.size() == TimerBytes * request->count;
    case ItemSize::Counter:
        request->value = valuesOf(payload, CounterBytes);
        return area.code == AreaCode::Counter && payload.size() == CounterBytes * request->count;
    default:
        return false;
    }
}

} // namespace

bool isConnectionRequest(const QByteArray& frame)
{
    return tpduType(frame) == Tpdu::ConnectionRequest;
}

bool isSetup(const QByteArray& frame)
{
    return isFunction(frame, Function::SetupCommunication);
}

bool isWriteJob(const QByteArray& frame)
{
    return isFunction(frame, Function::Write);
}

QString describeRequest(const QByteArray& frame)
{
    if (isConnectionRequest(frame))
        return QStringLiteral("connection request");
    if (isSetup(frame))
        return QStringLiteral("setup communication");
    if (!isSingleItemJob(frame))
        return QStringLiteral("a frame that is no read or write of one item");
    return (isWriteJob(frame) ? QStringLiteral("write ") : QStringLiteral("read ")) +
           describeItem(frame);
}

QString describeRead(const RW_VAR& request)
{
    const int bitType = request.reg_type;
    const int type = bitType == Type_T ? Type_TV : bitType == Type_C ? Type_CV : bitType;
    for (const JobArea& area : JobAreas) {
        if (area.wordType == type)
            return QStringLiteral("read ") + rangeText(area, request.address, request.count);
    }
    return QStringLiteral("read of register type %1").arg(request.reg_type);
}

QString describeReply(const QByteArray& reply)
{
    if (reply.isEmpty())
        return QStringLiteral("no reply");
    if (tpduType(reply) == Tpdu::ConnectionConfirm)
        return QStringLiteral("connection confirm");
    if (tpduType(reply) == Tpdu::DisconnectRequest)
        return QStringLiteral("disconnect request: ") +
               describe(DisconnectReason(byteAt(reply, DisconnectReasonOffset)));
    if (!isS7Pdu(reply))
        return QStringLiteral("%1 bytes that are no S7 reply").arg(reply.size());
    const int error = wordAt(reply, ErrorClassOffset);
    if (error != 0)
        return describe(JobError(error));
    const auto function = Function(byteAt(reply, AckFunctionOffset));
    const bool hasItem = function == Function::Read || function == Function::Write;
    const auto code = ItemCode(byteAt(reply, ItemCodeOffset));
    if (hasItem && code != ItemCode::Success)
        return QStringLiteral("item error: ") + describe(code);
    return QStringLiteral("a reply of %1 bytes").arg(reply.size());
}

QString fieldName(const QByteArray& frame, int offset)
{
    const char* name = fieldAt(CommonFields, offset);
    if (name == nullptr && isConnectionRequest(frame)) {
        name = fieldAt(ConnectFields, offset);
        if (name == nullptr)
            return parameterName(frame, offset);
    }
    if (name == nullptr)
        name = fieldAt(S7Fields, offset);
    if (name == nullptr)
        name = isSetup(frame) ? fieldAt(SetupFields, offset) : fieldAt(JobFields, offset);
    return name == nullptr ? QStringLiteral("behind the end") : QLatin1String(name);
}

QString describeResult(int result)
{
    switch (result) {
    case Result_WillRetry:
        return QStringLiteral("failed, tried again");
    case Result_Good:
        return QStringLiteral("good");
    case Result_HandshakeFailed:
        return QStringLiteral("handshake failed for good");
    default:
        break;
    }
    if (result >= Result_BadContent && result < Result_BadContent + HostKeys)
        return QStringLiteral("bad reply, link down");
    if (result >= Result_TimeOut && result < Result_TimeOut + HostKeys)
        return QStringLiteral("no reply, link down");
    if (result >= Result_WrongLength && result < Result_WrongLength + HostKeys)
        return QStringLiteral("reply of wrong length, link down");
    return QStringLiteral("unknown");
}

std::optional<RW_VAR> requestOf(const QByteArray& frame)
{
    const JobArea* area = areaOf(frame);
    if (!isSingleItemJob(frame) || area == nullptr)
        return std::nullopt;
    const bool numbered = area->readSize == ItemSize::Timer || area->readSize == ItemSize::Counter;
    RW_VAR request;
    request.reg_type = area->wordType;
    request.address = numbered ? startAddress(frame) : startAddress(frame) / 8;
    request.count = wordAt(frame, JobItemLengthOffset);
    // The driver goes by these names to tell how long the reply is.
    if (numbered)
        request.name = area->code == AreaCode::Timer ? QStringLiteral("TV") : QStringLiteral("CV");
    if (isWriteJob(frame))
        return addWrite(frame, *area, &request) ? std::make_optional(request) : std::nullopt;
    const bool readable = area->code != AreaCode::SpecialWrites &&
                          byteAt(frame, JobTransportSizeOffset) == int(area->readSize) &&
                          (numbered || startAddress(frame) % 8 == 0);
    return readable ? std::make_optional(request) : std::nullopt;
}

} // namespace s7200::panel
