// Requests put to the simulated controller: S7 over ISO-on-TCP, or forwarding records of remote
// access, as the first byte says. Then requests: a byte of flags (0x03: refusal, 0x04: as it is), a
// length byte and so many bytes, which get the TPKT header, or the record's length and checksum.

#include "fuzz/support.h"
#include "simulator/remote_request_handler.h"
#include "simulator/s7_request_handler.h"
#include "wire/s7_fields.h"

#include <numeric>

using namespace s7200::sim;
using namespace s7200::wire;

namespace
{

constexpr int MostRequests = 24;
constexpr int LargestPdu = 240;

QByteArray framed(QByteArray bytes, bool remote)
{
    if (!remote) {
        QByteArray header("\x03\0", 2);
        appendWord(header, int(bytes.size()) + TpktHeaderLength);
        return header + bytes;
    }
    bytes.prepend(char(bytes.size() + 2));
    return bytes + char(std::accumulate(bytes.begin(), bytes.end(), 0));
}

/// The areas up to one, one behind the other; inputs, which are never written, come first.
QByteArray contentsOf(const ControllerMemory& memory, SimulatorArea last = SimulatorArea::Counter)
{
    QByteArray contents;
    for (int i = 0; i <= int(last); ++i)
        contents += memory.read(SimulatorArea(i), 0, ControllerMemory::size(SimulatorArea(i)));
    return contents;
}

void answer(RequestHandler& handler, const ControllerMemory& memory, const QByteArray& request,
            Refusal refusal, int trailing)
{
    const QByteArray before = contentsOf(memory);
    const RequestSummary summary = handler.parse(request);
    const QByteArray reply = handler.answer(refusal);
    const QString text = handler.description();
    require(!text.isEmpty() && text.size() < 4096 && !text.contains(QLatin1Char('\n')),
            "a request is described in a line");
    require(reply.isEmpty() || wordAt(reply, TpktLengthOffset) + trailing == int(reply.size()),
            "a reply is one TPKT");
    const int lengths = wordAt(reply, ParameterLengthOffset) + wordAt(reply, DataLengthOffset);
    require(!isS7Pdu(reply) || AckFunctionOffset + lengths + trailing == int(reply.size()),
            "parameter and data lengths make up the reply");
    require(!isS7Pdu(reply) || ProtocolIdOffset + LargestPdu + trailing >= int(reply.size()),
            "a reply fits the PDU");
    const bool good = isS7Pdu(reply) && wordAt(reply, ErrorClassOffset) == 0 &&
                      byteAt(reply, ItemCodeOffset) == int(ItemCode::Success);
    require(!good || refusal == Refusal::None || summary.kind != RequestSummary::Job,
            "a job refused on request says so");
    const bool mayChange = good && byteAt(reply, AckFunctionOffset) == int(Function::Write);
    require(mayChange || contentsOf(memory) == before,
            "memory changes by writes that are acknowledged");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    ByteSource source(data, size);
    const bool remote = source.flag();
    const int trailing = remote ? RemoteRequestHandler::TrailingBytes : 0;
    ControllerMemory memory;
    S7RequestHandler s7(&memory);
    RemoteRequestHandler records(&memory);
    RequestHandler& handler = remote ? static_cast<RequestHandler&>(records) : s7;
    const QByteArray inputs = contentsOf(memory, SimulatorArea::I);
    for (int i = 0; i < MostRequests && !source.isEmpty(); ++i) {
        const int flags = source.byte();
        const Refusal refusal = (flags & 3) == 2   ? Refusal::Job
                                : (flags & 3) == 3 ? Refusal::Item
                                                   : Refusal::None;
        const QByteArray bytes = source.bytes(source.byte());
        handler.append((flags & 4) != 0 ? bytes : framed(bytes, remote));
        while (const auto request = handler.takeRequest())
            answer(handler, memory, *request, refusal, trailing);
    }
    require(contentsOf(memory, SimulatorArea::I) == inputs, "inputs are never written");
    return 0;
}
