#include "tests/simulation_controller.h"

#include "simulator/s7_replies.h"
#include "tests/simulation_dice.h"

namespace s7200::simulation
{

using sim::ControllerMemory;
using wire::ItemCode;

namespace
{

constexpr int RemoteTrailingBytes = 2;
constexpr int ReadReplyHeader = 18; // of the PDU

} // namespace

quint8 Memory::derived(Area area, int offset, Micros now) const
{
    static constexpr Micros Periods[] = {1000, 3000, 10000, 40000, 200000, 1000000};
    const int size = ControllerMemory::elementSize(area);
    const quint64 place = quint64(keyOf(area, size > 1 ? offset / size : offset / 2));
    const Micros period = Periods[mixed(m_seed, place) % 6];
    const quint64 now16 = mixed(m_seed, place, quint64(now / period) + 1);
    if (size == 1)
        return quint8(now16 >> 8 * (offset % 2));
    switch (size - offset % size) {
    case 1:
        return quint8(now16);
    case 2:
        return quint8(now16 >> 8);
    default:
        break;
    }
    if (offset % size != 0)
        return 0;
    return (now16 >> 16) % 2 == 0 ? 0 : area == Area::Timer ? 2 : 0x10;
}

QByteArray Memory::read(const Span& span, Micros now) const
{
    QByteArray bytes(span.bytes, '\0');
    for (int i = 0; i < span.bytes; ++i) {
        quint8 byte = derived(span.area, span.first + i, now);
        const auto written = m_written.find(keyOf(span.area, span.first + i));
        if (written != m_written.end())
            byte = quint8((byte & ~written->second.mask) | written->second.bits);
        bytes[i] = char(byte);
    }
    return bytes;
}

void Memory::write(const Asked& write)
{
    const int size = ControllerMemory::elementSize(write.span.area);
    for (int i = 0; i < write.span.bytes; ++i) {
        const int offset = write.span.first + i;
        if (size > 1 && offset % size < size - 2)
            continue; // status: its own
        Written& written = m_written[keyOf(write.span.area, offset)];
        const quint8 byte = quint8(write.data.at(i));
        const quint8 mask = write.bit < 0 ? 0xFF : quint8(1 << write.bit);
        const quint8 bits = write.bit < 0 ? byte : quint8((byte & 1) << write.bit);
        written.mask |= mask;
        written.bits = quint8((written.bits & ~mask) | bits);
    }
}

bool Conversation::fits(const Asked& request) const
{
    const bool inside =
        ControllerMemory::contains(request.span.area, request.span.first, 1) &&
        (m_isRemote ||
         ControllerMemory::contains(request.span.area, request.span.first, request.span.bytes));
    return inside && (request.kind == Asked::Read || request.span.bytes == request.data.size());
}

Answer Conversation::serve(const Asked& request, Refusal refusal, Micros now)
{
    Answer answer;
    const bool isRead = request.kind == Asked::Read;
    auto code = ItemCode::Success;
    if (!fits(request))
        code = ItemCode::AddressOutOfRange;
    else if (!isRead && !ControllerMemory::isWritable(request.span.area, request.span.first))
        code = ItemCode::AccessDenied;
    else if (refusal == Refusal::Item)
        code = ItemCode::HardwareFault;
    answer.refused = code != ItemCode::Success || refusal == Refusal::Job;
    const quint16 reference = m_isRemote ? m_reference : request.reference;
    if (code == ItemCode::Success && isRead) {
        Span all = request.span;
        all.bytes = request.payload;
        answer.sample = m_memory.read(all, now);
        const bool numbered = ControllerMemory::elementSize(all.area) > 1;
        answer.bytes = sim::readReply(
            reference, numbered ? wire::DataSize::Bytes : wire::DataSize::Bits, answer.sample);
    } else if (isRead) {
        answer.bytes = sim::readRefusal(reference, code);
    } else {
        answer.bytes = sim::writeReply(reference, code);
    }
    if (refusal == Refusal::Job)
        sim::setJobError(answer.bytes, wire::JobError::NotSupported);
    answer.applied = !isRead && !answer.refused;
    if (answer.applied)
        m_memory.write(request);
    return answer;
}

Answer Conversation::answer(const Asked& request, Refusal refusal, Micros now)
{
    Answer answer;
    const bool isJob = request.kind == Asked::Read || request.kind == Asked::Write;
    if (m_isRemote && isJob) {
        answer = serve(request, refusal, now);
        answer.bytes += QByteArray(RemoteTrailingBytes, '\0');
        // The host counts what it takes for good: of writes also those that their item refuses.
        if (!answer.refused || (request.kind == Asked::Write && refusal != Refusal::Job))
            m_reference = m_reference == 0xFFFF ? 1 : quint16(m_reference + 1);
    } else if (request.kind == Asked::Connect && !m_isConnected) {
        m_isConnected = true;
        answer.bytes = sim::connectionConfirm(1, 1, request.parameters);
    } else if (request.kind == Asked::Setup && m_isConnected) {
        m_isSetUp = refusal == Refusal::None;
        answer.refused = !m_isSetUp;
        answer.bytes = m_isSetUp ? sim::setupReply(request.reference, m_pdu)
                                 : sim::jobRefusal(request.reference, wire::JobError::NotSupported);
    } else if (isJob && m_isSetUp && request.payload + ReadReplyHeader > m_pdu) {
        answer.refused = true;
        answer.bytes = sim::jobRefusal(request.reference, wire::JobError::PduTooLong);
    } else if (isJob && m_isSetUp) {
        answer = serve(request, refusal, now);
    } else {
        answer.breaks = true;
    }
    return answer;
}

} // namespace s7200::simulation
