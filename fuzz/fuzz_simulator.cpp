// Requests of every shape, put to the simulated controller: S7 over ISO-on-TCP, or forwarding
// records of remote access. The first byte chooses which, and whether a connection is up already;
// each further request starts with the byte that names its kind.

#include "fuzz/support.h"
#include "simulator/controller_memory.h"
#include "simulator/remote_request_handler.h"
#include "simulator/s7_request_handler.h"

#include <QVector>
#include <QtEndian>

#include <utility>

namespace
{

constexpr int MostRequests = 24;
constexpr int AreaCount = 10;
constexpr int LongestDescription = 4096;

/// What the wire calls the areas.
struct AreaCode {
    int code;
    SimulatorArea area;
    int elementBytes;
};
const AreaCode Codes[] = {{0x81, SimulatorArea::I, 1},     {0x82, SimulatorArea::Q, 1},
                          {0x83, SimulatorArea::M, 1},     {0x04, SimulatorArea::S, 1},
                          {0x05, SimulatorArea::SM, 1},    {0x84, SimulatorArea::V, 1},
                          {0x06, SimulatorArea::AIW, 1},   {0x07, SimulatorArea::AQW, 1},
                          {0x1F, SimulatorArea::Timer, 5}, {0x1E, SimulatorArea::Counter, 3},
                          {0x85, SimulatorArea::SM, 1}};

int at(const QByteArray& bytes, int index)
{
    return uchar(bytes.at(index));
}

int at16(const QByteArray& bytes, int index)
{
    return at(bytes, index) * 256 + at(bytes, index + 1);
}

void put16(QByteArray& bytes, int value)
{
    bytes.append(char(value >> 8));
    bytes.append(char(value));
}

using Contents = QVector<QByteArray>;

Contents contentsOf(const ControllerMemory& memory)
{
    Contents contents;
    for (int area = 0; area < AreaCount; ++area)
        contents.append(
            memory.read(SimulatorArea(area), 0, ControllerMemory::size(SimulatorArea(area))));
    return contents;
}

/// The bytes that a request may change: none, or a run in one area.
struct Place {
    SimulatorArea area = SimulatorArea::I;
    qint64 begin = 0;
    qint64 end = 0;
};

/// Watches a memory that changes by requests only: looked at around each write and at the end.
class Watched
{
public:
    explicit Watched(const ControllerMemory& memory)
        : m_memory(memory), m_contents(contentsOf(memory))
    {
    }

    void requireUnchanged()
    {
        requireOnlyPlaceChanged(Place());
    }

    void requireOnlyPlaceChanged(const Place& place)
    {
        Contents after = contentsOf(m_memory);
        Contents before = after;
        std::swap(before, m_contents);
        const int inputs = int(SimulatorArea::I);
        const int special = int(SimulatorArea::SM);
        require(before.at(inputs) == after.at(inputs), "inputs are never written");
        require(before.at(special).left(30) == after.at(special).left(30),
                "the system's own special memory is never written");
        const QByteArray& area = before.at(int(place.area));
        const int begin = int(qBound(qint64(0), place.begin, qint64(area.size())));
        const int part = int(qBound(qint64(0), place.end - begin, qint64(area.size()) - begin));
        if (part > 0)
            after[int(place.area)].replace(begin, part, area.mid(begin, part));
        require(after == before, "memory changes where a write says, and nowhere else");
    }

private:
    const ControllerMemory& m_memory;
    Contents m_contents;
};

void requireTpkt(const QByteArray& reply, int trailing)
{
    require(reply.size() >= 7 && at16(reply, 0) == 0x0300 &&
                at16(reply, 2) + trailing == int(reply.size()),
            "a reply is one TPKT");
    if (at(reply, 5) != 0xF0)
        return;
    require(at(reply, 4) == 2 && at(reply, 6) == 0x80 && at(reply, 7) == 0x32,
            "a reply to a job is an S7 PDU in a data TPDU");
    require(at16(reply, 13) + at16(reply, 15) + 19 + trailing == int(reply.size()),
            "parameter and data lengths make up the reply");
}

bool isGoodReply(const QByteArray& reply, int function)
{
    return reply.size() >= 22 && at(reply, 5) == 0xF0 && at16(reply, 17) == 0 &&
           at(reply, 19) == function && at(reply, 21) == 0xFF;
}

void requireRefused(const QByteArray& reply, Refusal refusal)
{
    if (refusal == Refusal::Job && reply.size() >= 19)
        require(at16(reply, 17) != 0, "a job refused on request says so");
    if (refusal == Refusal::Item && reply.size() >= 22)
        require(at(reply, 21) != 0xFF, "an item refused on request says so");
}

Refusal chooseRefusal(ByteSource& source)
{
    const int choice = source.below(8);
    return choice == 6 ? Refusal::Job : choice == 7 ? Refusal::Item : Refusal::None;
}

void requireDescription(const RequestHandler& handler)
{
    const QString text = handler.description();
    require(!text.isEmpty() && text.size() < LongestDescription &&
                !text.contains(QLatin1Char('\n')),
            "a request is described in a line");
}

// S7

QByteArray tpkt(const QByteArray& tpdu)
{
    QByteArray frame("\x03\0", 2);
    put16(frame, int(tpdu.size()) + 4);
    return frame + tpdu;
}

QByteArray connectRequest()
{
    return tpkt(QByteArray::fromHex("11E00000000100C00109C1021000C2021100"));
}

QByteArray setupRequest(int pdu)
{
    QByteArray tpdu = QByteArray::fromHex("02F08032010000010800080000F00000010001");
    put16(tpdu, pdu);
    return tpkt(tpdu);
}

QByteArray job(ByteSource& source, bool isWrite)
{
    static const int Sizes[] = {0x01, 0x02, 0x04, 0x06, 0x1E, 0x1F};
    static const int Bytes[] = {1, 1, 2, 4, 3, 5};
    const int reference = source.word();
    const int size = source.below(6);
    const int count = source.number();
    const AreaCode& code = Codes[source.below(int(sizeof Codes / sizeof Codes[0]))];
    const int address = source.number();
    const QByteArray data = isWrite ? source.bytes(source.byte()) : QByteArray();
    const int announced = isWrite ? count * qint64(Bytes[size]) & 0xFF : 0;

    QByteArray tpdu = QByteArray::fromHex("02F08032010000");
    put16(tpdu, reference);
    put16(tpdu, 14);
    put16(tpdu, isWrite ? announced + 4 : 0);
    tpdu.append(char(isWrite ? 5 : 4));
    tpdu.append(QByteArray::fromHex("01120A10"));
    tpdu.append(char(Sizes[size]));
    put16(tpdu, count);
    put16(tpdu, code.area == SimulatorArea::V ? 1 : 0);
    tpdu.append(char(code.code));
    tpdu.append(char(address >> 16));
    put16(tpdu, address);
    if (isWrite) {
        tpdu.append('\0');
        tpdu.append(char(size == 0 ? 3 : 4));
        put16(tpdu, size == 0 ? announced : announced * 8);
        tpdu.append(data.leftJustified(announced, '\0', true));
    }
    return tpkt(tpdu);
}

QByteArray s7Request(ByteSource& source, const QByteArray& last)
{
    switch (source.below(9)) {
    case 0:
        return connectRequest();
    case 1:
        return setupRequest(source.word());
    case 2:
    case 3:
        return job(source, false);
    case 4:
    case 5:
        return job(source, true);
    case 6:
        return tpkt(QByteArray::fromHex("02F080"));
    case 7: {
        QByteArray changed = last;
        if (!changed.isEmpty()) {
            const int offset = source.byte() % int(changed.size());
            changed[offset] = char(source.byte());
        }
        return changed;
    }
    default:
        return source.bytes(source.byte());
    }
}

/// Where a write job goes, by its item.
Place placeOf(const QByteArray& request)
{
    Place place;
    if (request.size() < 35 || at(request, 17) != 5)
        return place;
    for (const AreaCode& code : Codes) {
        if (code.code != at(request, 27))
            continue;
        const qint64 address = qint64(at(request, 28)) << 16 | at16(request, 29);
        place.area = code.area;
        place.begin = code.elementBytes > 1 ? address * code.elementBytes : address / 8;
        place.end = place.begin + request.size() - 35;
    }
    return place;
}

class S7Story
{
public:
    explicit S7Story(ByteSource& source)
        : m_source(source), m_largestPdu(source.flag() ? 240 : source.word() & 0x0FFF),
          m_watched(m_memory), m_handler(&m_memory, m_largestPdu)
    {
    }

    void tell(bool connected)
    {
        if (connected)
            receive(connectRequest() + setupRequest(240));
        QByteArray last;
        for (int i = 0; i < MostRequests && !m_source.isEmpty(); ++i) {
            last = s7Request(m_source, last);
            receive(last);
        }
        retell();
    }

private:
    void receive(const QByteArray& bytes)
    {
        m_stream.append(bytes);
        m_handler.append(bytes);
        QByteArray request;
        while (m_handler.takeRequest(&request))
            answer(request);
    }

    void answer(const QByteArray& request)
    {
        const Refusal refusal = chooseRefusal(m_source);
        const bool isWrite = request.size() > 17 && at(request, 17) == 5;
        if (isWrite)
            m_watched.requireUnchanged();
        const RequestSummary summary = m_handler.parse(request);
        const QByteArray reply = m_handler.answer(refusal);
        requireDescription(m_handler);
        m_refusals.append(refusal);
        m_replies.append(reply);

        if (!reply.isEmpty())
            checkReply(request, reply);
        if (summary.kind == RequestSummary::Job)
            requireRefused(reply, refusal);
        const bool stored = refusal == Refusal::None && isGoodReply(reply, 5);
        if (isWrite)
            m_watched.requireOnlyPlaceChanged(stored ? placeOf(request) : Place());
    }

    void checkReply(const QByteArray& request, const QByteArray& reply)
    {
        requireTpkt(reply, 0);
        if (at(reply, 5) != 0xF0)
            return;
        require(at16(reply, 11) == at16(request, 11), "a reply echoes the PDU reference");
        if (reply.size() == 27 && at(reply, 19) == 0xF0) {
            m_granted = at16(reply, 25);
            require(m_granted <= m_largestPdu && m_granted <= at16(request, 23),
                    "no more is granted than was asked for");
        }
        if (isGoodReply(reply, 4))
            checkRead(request, reply);
    }

    void checkRead(const QByteArray& request, const QByteArray& reply)
    {
        require(reply.size() - 7 <= m_granted, "a read reply keeps to the granted PDU length");
        const int unit = at(reply, 22);
        const int length = at16(reply, 23);
        require((unit == 4 ? length / 8 : length) == int(reply.size()) - 25,
                "a read reply's item length is its payload's");
        for (const AreaCode& code : Codes) {
            const int address = at(request, 28) << 16 | at16(request, 29);
            if (code.code == at(request, 27) && unit != 3)
                require(reply.mid(25) == m_memory.read(code.area,
                                                       code.elementBytes > 1
                                                           ? address * code.elementBytes
                                                           : address / 8,
                                                       int(reply.size()) - 25),
                        "a read reply carries what the memory holds");
        }
    }

    /// The same bytes in other segments give the same replies and the same memory.
    void retell()
    {
        m_watched.requireUnchanged();
        ControllerMemory memory;
        S7RequestHandler handler(&memory, m_largestPdu);
        const int segment = 1 + int(m_stream.size()) % 13;
        QVector<QByteArray> replies;
        QByteArray request;
        for (int from = 0; from < int(m_stream.size()); from += segment) {
            handler.append(m_stream.mid(from, segment));
            while (handler.takeRequest(&request)) {
                require(replies.size() < m_refusals.size(), "no request comes of segmentation");
                handler.parse(request);
                replies.append(handler.answer(m_refusals.at(int(replies.size()))));
            }
        }
        require(replies == m_replies, "segments do not change the replies");
        require(contentsOf(memory) == contentsOf(m_memory), "nor the memory");
        require(handler.isBroken() == m_handler.isBroken(), "nor when the conversation breaks");
    }

    ByteSource& m_source;
    int m_largestPdu;
    ControllerMemory m_memory;
    Watched m_watched;
    S7RequestHandler m_handler;
    int m_granted = 0;
    QByteArray m_stream;
    QVector<Refusal> m_refusals;
    QVector<QByteArray> m_replies;
};

// Remote access

/// Where a forwarded write goes, by its record.
Place remotePlace(const QByteArray& record)
{
    static const SimulatorArea Areas[] = {
        SimulatorArea::I,   SimulatorArea::Q,   SimulatorArea::M,     SimulatorArea::S,
        SimulatorArea::SM,  SimulatorArea::V,   SimulatorArea::I,     SimulatorArea::Q,
        SimulatorArea::M,   SimulatorArea::S,   SimulatorArea::SM,    SimulatorArea::V,
        SimulatorArea::V,   SimulatorArea::V,   SimulatorArea::Timer, SimulatorArea::Counter,
        SimulatorArea::AIW, SimulatorArea::AQW, SimulatorArea::Timer, SimulatorArea::Counter,
        SimulatorArea::I,   SimulatorArea::Q,   SimulatorArea::M,     SimulatorArea::S,
        SimulatorArea::SM};
    Place place;
    const int type = at16(record, 5);
    if (type >= int(sizeof Areas / sizeof Areas[0]))
        return place;
    const qint64 address = qFromBigEndian<qint32>(record.constData() + 7);
    const int count = at16(record, 11);
    place.area = Areas[type];
    const int element = ControllerMemory::elementSize(place.area);
    const int unit = type <= 5 ? 1 : 8 * (element > 1 ? element : 1);
    const int perCount = type <= 5 ? 1 : element > 1 ? 8 * element : type == 11 ? 8 : 16;
    place.begin = address * unit / 8;
    place.end = (address * unit + qint64(count) * perCount + 7) / 8;
    return place;
}

QByteArray remoteRecord(ByteSource& source)
{
    if (source.below(4) == 0)
        return source.bytes(source.byte());
    const int flags = source.byte();
    QByteArray record(1, '\0');
    record.append(source.bytes(1).leftJustified(1, '\0'));
    record.append(char(flags & 1));
    record.append(char((flags >> 1) & 1));
    record.append('\x02');
    put16(record, source.number());
    const int address = source.number();
    put16(record, address >> 16);
    put16(record, address);
    put16(record, source.number());
    record.append(QByteArray(8, '\0'));
    if ((flags & 4) != 0)
        record.append(source.bytes(source.byte()));
    record[0] = char(record.size() + 1);
    int sum = flags >> 7;
    for (char byte : std::as_const(record))
        sum += uchar(byte);
    record.append(char(sum));
    return record;
}

void checkRemoteReply(const QByteArray& request, const QByteArray& reply)
{
    requireTpkt(reply, RemoteRequestHandler::TrailingBytes);
    if (!isGoodReply(reply, 4))
        return;
    require(request.size() == 22, "only a whole record is served");
    const int length = at16(reply, 23);
    const int payload = int(reply.size()) - 25 - RemoteRequestHandler::TrailingBytes;
    require((at(reply, 22) == 4 ? length / 8 : length) == payload,
            "a read reply's item length is its payload's");
}

void tellRemoteStory(ByteSource& source)
{
    ControllerMemory memory;
    Watched watched(memory);
    RemoteRequestHandler handler(&memory);
    for (int i = 0; i < MostRequests && !source.isEmpty(); ++i) {
        handler.append(remoteRecord(source));
        QByteArray request;
        while (handler.takeRequest(&request)) {
            const Refusal refusal = chooseRefusal(source);
            const bool isWrite = request.size() > 22 || (request.size() > 2 && request.at(2) != 0);
            if (isWrite)
                watched.requireUnchanged();
            const RequestSummary summary = handler.parse(request);
            const QByteArray reply = handler.answer(refusal);
            requireDescription(handler);
            checkRemoteReply(request, reply);
            if (summary.kind == RequestSummary::Job)
                requireRefused(reply, refusal);
            const bool stored = refusal == Refusal::None && isGoodReply(reply, 5);
            if (isWrite)
                watched.requireOnlyPlaceChanged(stored ? remotePlace(request) : Place());
        }
    }
    watched.requireUnchanged();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    ByteSource source(data, size);
    const int flags = source.byte();
    if ((flags & 1) != 0)
        tellRemoteStory(source);
    else
        S7Story(source).tell((flags & 2) != 0);
    return 0;
}
