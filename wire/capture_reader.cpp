#include "wire/capture_reader.h"

#include <QtEndian>

#include <algorithm>

namespace s7200::wire
{

namespace
{

// Magic numbers as the file's first four bytes show them in big-endian order.
constexpr quint32 MicrosecondCapture = 0xA1B2C3D4;
constexpr quint32 NanosecondCapture = 0xA1B23C4D;
constexpr quint32 SectionHeader = 0x0A0D0D0A; // the same in either order
constexpr quint32 SectionOrder = 0x1A2B3C4D;

constexpr int FileHeaderLength = 24;
constexpr int RecordHeaderLength = 16;
constexpr quint32 LongestFrame = 256 * 1024;
constexpr quint32 LongestBlock = 16 * 1024 * 1024;
constexpr int MostInterfaces = 4096;

// Block types of pcapng.
constexpr quint32 InterfaceBlock = 1;
constexpr quint32 OldPacketBlock = 2;
constexpr quint32 SimplePacketBlock = 3;
constexpr quint32 PacketBlock = 6;
constexpr quint16 TimeResolutionOption = 9;

// Link types.
constexpr int BsdLoopback = 0;
constexpr int Ethernet = 1;
constexpr int OpenBsdLoopback = 108;
constexpr int AnyInterface = 113;
constexpr int AnyInterface2 = 276;
constexpr int RawIpTypes[] = {12, 14, 101, 228, 229};

constexpr quint16 EtherIpv4 = 0x0800;
constexpr quint16 EtherIpv6 = 0x86DD;
constexpr quint16 EtherVlan = 0x8100;
constexpr quint16 EtherServiceVlan = 0x88A8;
constexpr quint8 Tcp = 6;

quint8 byteAt(const QByteArray& bytes, int index)
{
    return index < bytes.size() ? quint8(bytes.at(index)) : quint8(0);
}

/// As networks order them; 0 behind the end.
quint16 networkHalfWord(const QByteArray& bytes, int offset)
{
    return quint16(byteAt(bytes, offset) << 8 | byteAt(bytes, offset + 1));
}

quint32 networkWord(const QByteArray& bytes, int offset)
{
    return quint32(networkHalfWord(bytes, offset)) << 16 | networkHalfWord(bytes, offset + 2);
}

bool isIp(quint16 etherType)
{
    return etherType == EtherIpv4 || etherType == EtherIpv6;
}

/// The IP packet in a frame; empty if there is none.
QByteArray ipPacket(int linkType, const QByteArray& frame)
{
    int offset = -1;
    if (linkType == Ethernet) {
        int typeAt = 12;
        while (networkHalfWord(frame, typeAt) == EtherVlan ||
               networkHalfWord(frame, typeAt) == EtherServiceVlan)
            typeAt += 4;
        offset = isIp(networkHalfWord(frame, typeAt)) ? typeAt + 2 : -1;
    } else if (linkType == BsdLoopback || linkType == OpenBsdLoopback) {
        offset = 4; // the address family, in the byte order of whoever recorded it
    } else if (linkType == AnyInterface) {
        offset = isIp(networkHalfWord(frame, 14)) ? 16 : -1;
    } else if (linkType == AnyInterface2) {
        offset = isIp(networkHalfWord(frame, 0)) ? 20 : -1;
    } else if (std::find(std::begin(RawIpTypes), std::end(RawIpTypes), linkType) !=
               std::end(RawIpTypes)) {
        offset = 0;
    }
    return offset < 0 ? QByteArray() : frame.mid(offset);
}

/// The TCP segment in an IP packet, without the padding behind it; `from` and `to` get addresses.
QByteArray tcpPart(const QByteArray& packet, TcpEnd* from, TcpEnd* to)
{
    const int version = byteAt(packet, 0) >> 4;
    if (version == 4) {
        const int header = 4 * (byteAt(packet, 0) & 0x0F);
        const bool fragment = (networkHalfWord(packet, 6) & 0x3FFF) != 0;
        if (header < 20 || packet.size() < header || fragment || byteAt(packet, 9) != Tcp)
            return QByteArray();
        from->address = QHostAddress(networkWord(packet, 12));
        to->address = QHostAddress(networkWord(packet, 16));
        // Recorded by a machine whose network card cuts segments, the length may be left 0.
        const int length = networkHalfWord(packet, 2);
        return packet.mid(header, length > 0 ? std::max(0, length - header) : -1);
    }
    if (version != 6 || packet.size() < 40 || byteAt(packet, 6) != Tcp)
        return QByteArray();
    from->address = QHostAddress(reinterpret_cast<const quint8*>(packet.constData() + 8));
    to->address = QHostAddress(reinterpret_cast<const quint8*>(packet.constData() + 24));
    const int length = networkHalfWord(packet, 4);
    return packet.mid(40, length > 0 ? length : -1);
}

std::optional<CapturedSegment> segmentOf(int linkType, const QByteArray& frame)
{
    CapturedSegment segment;
    const QByteArray tcp = tcpPart(ipPacket(linkType, frame), &segment.from, &segment.to);
    const int header = 4 * (byteAt(tcp, 12) >> 4);
    if (header < 20 || tcp.size() < header)
        return std::nullopt;
    segment.from.port = networkHalfWord(tcp, 0);
    segment.to.port = networkHalfWord(tcp, 2);
    segment.sequence = networkWord(tcp, 4);
    const quint8 flags = byteAt(tcp, 13);
    segment.fin = (flags & 0x01) != 0;
    segment.syn = (flags & 0x02) != 0;
    segment.reset = (flags & 0x04) != 0;
    segment.ack = (flags & 0x10) != 0;
    segment.bytes = tcp.mid(header);
    return segment;
}

qint64 ticksPerSecond(quint8 resolution)
{
    const int exponent = resolution & 0x7F;
    if ((resolution & 0x80) != 0)
        return qint64(1) << std::min(exponent, 40);
    qint64 ticks = 1;
    for (int i = 0; i < std::min(exponent, 12); ++i)
        ticks *= 10;
    return ticks;
}

qint64 microseconds(quint64 ticks, qint64 ticksPerSecond)
{
    const auto rate = quint64(ticksPerSecond);
    return qint64(ticks / rate * 1000000) + qint64(double(ticks % rate) * 1e6 / double(rate));
}

} // namespace

std::unique_ptr<CaptureReader> CaptureReader::open(const QString& fileName, QString* error)
{
    std::unique_ptr<CaptureReader> reader(new CaptureReader);
    reader->m_file.setFileName(fileName);
    if (!reader->m_file.open(QIODevice::ReadOnly))
        *error = QStringLiteral("cannot read %1: %2").arg(fileName, reader->m_file.errorString());
    else if (!reader->readFileHeader())
        *error = QStringLiteral("%1 is no capture file: it begins neither as pcap nor as pcapng")
                     .arg(fileName);
    else
        return reader;
    return nullptr;
}

QString CaptureReader::error() const
{
    return m_error;
}

qint64 CaptureReader::cutFrames() const
{
    return m_cutFrames;
}

bool CaptureReader::readFileHeader()
{
    const QByteArray start = m_file.peek(FileHeaderLength);
    if (networkWord(start, 0) == SectionHeader) {
        m_blocks = true;
        return start.size() == FileHeaderLength;
    }
    for (bool bigEndian : {true, false}) {
        m_bigEndian = bigEndian;
        const quint32 magic = start.size() == FileHeaderLength ? word(start, 0) : 0;
        if (magic != MicrosecondCapture && magic != NanosecondCapture)
            continue;
        Interface interface;
        interface.linkType = int(word(start, 20) & 0x0FFFFFFF);
        interface.ticksPerSecond = magic == NanosecondCapture ? 1000000000 : 1000000;
        m_interfaces.append(interface);
        return take(FileHeaderLength).size() == FileHeaderLength;
    }
    return false;
}

std::optional<CapturedSegment> CaptureReader::next()
{
    while (const std::optional<Frame> frame = nextFrame()) {
        if (std::optional<CapturedSegment> segment = segmentOf(frame->linkType, frame->bytes)) {
            segment->number = m_frameNumber;
            segment->timeUs = frame->timeUs;
            return segment;
        }
    }
    return std::nullopt;
}

std::optional<CaptureReader::Frame> CaptureReader::nextFrame()
{
    if (!m_error.isEmpty())
        return std::nullopt;
    std::optional<Frame> frame = m_blocks ? nextBlock() : nextRecord();
    if (frame)
        ++m_frameNumber;
    else if (m_error.isEmpty() && !m_file.atEnd())
        m_error = QStringLiteral("%1 is damaged or cut off after frame %2")
                      .arg(m_file.fileName())
                      .arg(m_frameNumber);
    return frame;
}

std::optional<CaptureReader::Frame> CaptureReader::nextRecord()
{
    const QByteArray header = m_file.peek(RecordHeaderLength);
    if (header.size() < RecordHeaderLength)
        return std::nullopt;
    const quint32 length = word(header, 8);
    if (length > LongestFrame || m_file.bytesAvailable() < RecordHeaderLength + qint64(length))
        return std::nullopt;
    const Interface& interface = m_interfaces.first();
    Frame frame;
    frame.linkType = interface.linkType;
    frame.timeUs = qint64(word(header, 0)) * 1000000 +
                   qint64(word(header, 4)) * 1000000 / interface.ticksPerSecond;
    frame.bytes = take(RecordHeaderLength + qint64(length)).mid(RecordHeaderLength);
    m_cutFrames += word(header, 12) > length ? 1 : 0;
    return frame;
}

/// Passes over blocks that hold no frame.
std::optional<CaptureReader::Frame> CaptureReader::nextBlock()
{
    for (;;) {
        if (networkWord(m_file.peek(4), 0) == SectionHeader && !startSection())
            return std::nullopt;
        const QByteArray start = m_file.peek(8);
        const quint32 length = start.size() == 8 ? word(start, 4) : 0;
        if (length < 12 || length % 4 != 0 || length > LongestBlock ||
            m_file.bytesAvailable() < qint64(length))
            return std::nullopt;
        const QByteArray block = take(length);
        const quint32 type = word(block, 0);
        if (type == InterfaceBlock)
            addInterface(block);
        if (const std::optional<Frame> frame = packetOf(type, block))
            return frame;
    }
}

/// Each section has a byte order and interfaces of its own.
bool CaptureReader::startSection()
{
    const QByteArray order = m_file.peek(12).mid(8);
    m_interfaces.clear();
    m_bigEndian = networkWord(order, 0) == SectionOrder;
    return m_bigEndian || (order.size() == 4 && word(order, 0) == SectionOrder);
}

void CaptureReader::addInterface(const QByteArray& block)
{
    Interface interface;
    interface.linkType = halfWord(block, 8);
    for (int at = 16; at + 4 <= block.size() - 4;) {
        const int length = halfWord(block, at + 2);
        if (halfWord(block, at) == TimeResolutionOption && length == 1)
            interface.ticksPerSecond = ticksPerSecond(byteAt(block, at + 4));
        at += 4 + (length + 3) / 4 * 4;
    }
    if (m_interfaces.size() < MostInterfaces)
        m_interfaces.append(interface);
}

std::optional<CaptureReader::Frame> CaptureReader::packetOf(quint32 blockType,
                                                            const QByteArray& block)
{
    const bool simple = blockType == SimplePacketBlock;
    if (!simple && blockType != PacketBlock && blockType != OldPacketBlock)
        return std::nullopt;
    quint32 index = 0;
    if (!simple)
        index = blockType == PacketBlock ? word(block, 8) : halfWord(block, 8);
    if (index >= quint32(m_interfaces.size()))
        return Frame(); // counts as a frame, but nobody can tell what it is
    const Interface& interface = m_interfaces.at(int(index));
    const int dataAt = simple ? 12 : 28;
    const quint32 length = word(block, simple ? 8 : 20);
    Frame frame;
    frame.linkType = interface.linkType;
    if (!simple)
        frame.timeUs = microseconds(quint64(word(block, 12)) << 32 | word(block, 16),
                                    interface.ticksPerSecond);
    frame.bytes = block.mid(
        dataAt, int(std::min(length, quint32(std::max<qint64>(0, block.size() - dataAt - 4)))));
    m_cutFrames += word(block, simple ? 8 : 24) > quint32(frame.bytes.size()) ? 1 : 0;
    return frame;
}

QByteArray CaptureReader::take(qint64 length)
{
    return m_file.read(length);
}

/// 0 behind the end.
quint32 CaptureReader::word(const QByteArray& bytes, int offset) const
{
    const quint32 value = networkWord(bytes, offset);
    return m_bigEndian ? value : qbswap(value);
}

quint16 CaptureReader::halfWord(const QByteArray& bytes, int offset) const
{
    const quint16 value = networkHalfWord(bytes, offset);
    return m_bigEndian ? value : qbswap(value);
}

} // namespace s7200::wire
