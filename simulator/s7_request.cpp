#include "simulator/s7_request.h"

#include "wire/s7_fields.h"

namespace s7200::sim
{

using namespace wire;

namespace
{

constexpr int SetupParameterLength = 8;
constexpr int ItemParameterLength = 14;
constexpr int DataHeaderLength = JobPayloadOffset - JobDataOffset;

S7Request parseConnect(const QByteArray& tpkt)
{
    S7Request request;
    const bool wholeHeader = tpkt.size() >= CotpParametersOffset;
    // Class 0 is the only one that RFC 1006 allows.
    if (!wholeHeader || byteAt(tpkt, CotpLengthOffset) != tpkt.size() - 5 ||
        (byteAt(tpkt, CotpClassOffset) & 0xF0) != 0)
        return request;
    request.kind = S7Request::Connect;
    request.clientReference = quint16(wordAt(tpkt, SourceReferenceOffset));
    request.connectParameters = tpkt.mid(CotpParametersOffset);
    return request;
}

void parseItem(const QByteArray& tpkt, S7Request* request)
{
    request->transportSize = quint8(byteAt(tpkt, JobTransportSizeOffset));
    request->count = wordAt(tpkt, JobItemLengthOffset);
    request->dbNumber = wordAt(tpkt, JobDbNumberOffset);
    request->area = quint8(byteAt(tpkt, JobAreaOffset));
    request->address = byteAt(tpkt, JobAddressOffset) << 16 | wordAt(tpkt, JobAddressOffset + 1);
}

void parseData(const QByteArray& tpkt, S7Request* request)
{
    request->dataTransportSize = quint8(byteAt(tpkt, JobDataSizeOffset));
    request->dataLength = wordAt(tpkt, JobDataLengthOffset);
    request->data = tpkt.mid(JobPayloadOffset);
}

void parseJob(const QByteArray& tpkt, S7Request* request)
{
    const int parameterLength = wordAt(tpkt, ParameterLengthOffset);
    const int dataLength = wordAt(tpkt, DataLengthOffset);
    if (JobFunctionOffset + parameterLength + dataLength != tpkt.size() || parameterLength < 1)
        return;
    const auto function = Function(byteAt(tpkt, JobFunctionOffset));
    if (function == Function::SetupCommunication) {
        if (parameterLength != SetupParameterLength)
            return;
        request->kind = S7Request::Setup;
        request->requestedPdu = wordAt(tpkt, JobPduLengthOffset);
        return;
    }
    const bool oneItem =
        parameterLength == ItemParameterLength && byteAt(tpkt, JobItemCountOffset) == 1 &&
        wordAt(tpkt, JobItemOffset) == 0x120A && byteAt(tpkt, JobSyntaxOffset) == AnySyntax;
    if (!oneItem)
        return;
    if (function == Function::Read && dataLength == 0) {
        request->kind = S7Request::Read;
        parseItem(tpkt, request);
    } else if (function == Function::Write && dataLength >= DataHeaderLength) {
        request->kind = S7Request::Write;
        parseItem(tpkt, request);
        parseData(tpkt, request);
    }
}

} // namespace

S7Request parseS7Request(const QByteArray& tpkt)
{
    S7Request request;
    const bool whole = tpkt.size() >= ShortestTpkt && tpkt.startsWith('\x03') &&
                       wordAt(tpkt, TpktLengthOffset) == tpkt.size();
    if (!whole)
        return request;
    if (byteAt(tpkt, TpduTypeOffset) == int(Tpdu::ConnectionRequest))
        return parseConnect(tpkt);
    if (isEmptyDataTpdu(tpkt)) {
        request.kind = S7Request::EmptyTpdu;
        return request;
    }
    if (!isS7Pdu(tpkt) || (byteAt(tpkt, EndOfTpduOffset) & EndOfTpdu) == 0)
        return request;
    request.kind = S7Request::Unsupported;
    request.reference = quint16(wordAt(tpkt, PduReferenceOffset));
    request.pduLength = int(tpkt.size()) - ProtocolIdOffset;
    if (byteAt(tpkt, RosctrOffset) == int(Rosctr::Job))
        parseJob(tpkt, &request);
    return request;
}

} // namespace s7200::sim
