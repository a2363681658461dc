#include "simulator/s7_request.h"

#include "simulator/s7_replies.h"
#include "wire/tpkt_reassembler.h"

#include <QtEndian>

namespace
{

constexpr quint8 CotpConnectionRequest = 0xE0;
constexpr quint8 CotpData = 0xF0;
constexpr quint8 CotpEndOfTransmission = 0x80;
constexpr quint8 S7ProtocolId = 0x32;
constexpr quint8 RosctrJob = 0x01;
constexpr quint8 S7AnySyntax = 0x10;

constexpr int ConnectHeaderLength = 11;
constexpr int S7Offset = 7;
constexpr int JobHeaderLength = 10;
constexpr int ParameterOffset = S7Offset + JobHeaderLength;
constexpr int SetupParameterLength = 8;
constexpr int ItemParameterLength = 14;
constexpr int DataHeaderLength = 4;

int byteAt(const QByteArray& bytes, int offset)
{
    return quint8(bytes.at(offset));
}

int wordAt(const QByteArray& bytes, int offset)
{
    return qFromBigEndian<quint16>(bytes.constData() + offset);
}

S7Request parseConnect(const QByteArray& tpkt)
{
    S7Request request;
    const bool wholeHeader = tpkt.size() >= ConnectHeaderLength;
    // Class 0 is the only one that RFC 1006 allows.
    if (!wholeHeader || byteAt(tpkt, 4) != tpkt.size() - 5 || (byteAt(tpkt, 10) & 0xF0) != 0)
        return request;
    request.kind = S7Request::Connect;
    request.clientReference = quint16(wordAt(tpkt, 8));
    request.connectParameters = tpkt.mid(ConnectHeaderLength);
    return request;
}

void parseItem(const QByteArray& tpkt, S7Request* request)
{
    request->transportSize = quint8(byteAt(tpkt, 22));
    request->count = wordAt(tpkt, 23);
    request->dbNumber = wordAt(tpkt, 25);
    request->area = quint8(byteAt(tpkt, 27));
    request->address = byteAt(tpkt, 28) << 16 | wordAt(tpkt, 29);
}

void parseData(const QByteArray& tpkt, S7Request* request)
{
    const int offset = ParameterOffset + ItemParameterLength;
    request->dataTransportSize = quint8(byteAt(tpkt, offset + 1));
    request->dataLength = wordAt(tpkt, offset + 2);
    request->data = tpkt.mid(offset + DataHeaderLength);
}

void parseJob(const QByteArray& tpkt, S7Request* request)
{
    const int parameterLength = wordAt(tpkt, 13);
    const int dataLength = wordAt(tpkt, 15);
    if (ParameterOffset + parameterLength + dataLength != tpkt.size() || parameterLength < 1)
        return;
    const auto function = S7Function(byteAt(tpkt, ParameterOffset));
    if (function == S7Function::SetupCommunication) {
        if (parameterLength != SetupParameterLength)
            return;
        request->kind = S7Request::Setup;
        request->requestedPdu = wordAt(tpkt, 23);
        return;
    }
    const bool oneItem = parameterLength == ItemParameterLength && byteAt(tpkt, 18) == 1 &&
                         byteAt(tpkt, 19) == 0x12 && byteAt(tpkt, 20) == 0x0A &&
                         byteAt(tpkt, 21) == S7AnySyntax;
    if (!oneItem)
        return;
    if (function == S7Function::Read && dataLength == 0) {
        request->kind = S7Request::Read;
        parseItem(tpkt, request);
    } else if (function == S7Function::Write && dataLength >= DataHeaderLength) {
        request->kind = S7Request::Write;
        parseItem(tpkt, request);
        parseData(tpkt, request);
    }
}

} // namespace

S7Request parseS7Request(const QByteArray& tpkt)
{
    S7Request request;
    if (tpkt.size() < S7Offset || !tpkt.startsWith('\x03') || wordAt(tpkt, 2) != tpkt.size())
        return request;
    const int tpduType = byteAt(tpkt, 5);
    if (tpduType == CotpConnectionRequest)
        return parseConnect(tpkt);
    if (isEmptyDataTpdu(tpkt)) {
        request.kind = S7Request::EmptyTpdu;
        return request;
    }
    const bool wholeTpdu = byteAt(tpkt, 4) == 2 && tpduType == CotpData &&
                           (byteAt(tpkt, 6) & CotpEndOfTransmission) != 0;
    if (!wholeTpdu || tpkt.size() < ParameterOffset || byteAt(tpkt, S7Offset) != S7ProtocolId)
        return request;
    request.kind = S7Request::Unsupported;
    request.reference = quint16(wordAt(tpkt, ReferenceOffset));
    request.pduLength = int(tpkt.size()) - S7Offset;
    if (byteAt(tpkt, 8) == RosctrJob)
        parseJob(tpkt, &request);
    return request;
}
