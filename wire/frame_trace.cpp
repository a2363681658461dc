#include "wire/frame_trace.h"

#include <QDateTime>
#include <QFile>
#include <QtEndian>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace s7200::wire
{

namespace
{

constexpr quint32 CaptureMagic = 0xA1B2C3D4; // microseconds, in this machine's byte order
constexpr quint32 LinkTypeRawIp = 101;
constexpr quint32 LongestCapture = 65535;

constexpr int IpHeaderLength = 20;
constexpr int LongestSegment = 1460;
// Addresses reserved for documentation: a trace tells nothing about the plant's network.
constexpr quint32 ClientAddress = 0xC0000201;     // 192.0.2.1
constexpr quint32 ControllerAddress = 0xC0000202; // 192.0.2.2
constexpr quint16 ControllerPort = 102;           // ISO-on-TCP
constexpr int FirstClientPort = 49152;
constexpr int ClientPorts = 16384;

constexpr quint8 FlagSyn = 0x02;
constexpr quint8 FlagPush = 0x08;
constexpr quint8 FlagAck = 0x10;

template <typename Number>
void appendBigEndian(QByteArray& out, Number number)
{
    const Number swapped = qToBigEndian(number);
    out.append(reinterpret_cast<const char*>(&swapped), int(sizeof swapped));
}

template <typename Number>
void appendNative(QByteArray& out, Number number)
{
    out.append(reinterpret_cast<const char*>(&number), int(sizeof number));
}

quint16 clientPort(int connection)
{
    return quint16(FirstClientPort + connection % ClientPorts);
}

/// The Internet checksum (RFC 1071) of `bytes`; `sum` carries a pseudo header's words in.
quint16 internetChecksum(const QByteArray& bytes, quint32 sum = 0)
{
    for (int i = 0; i < bytes.size(); ++i)
        sum += quint32(quint8(bytes.at(i))) << (i % 2 == 0 ? 8 : 0);
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return quint16(~sum & 0xFFFF);
}

void putChecksum(QByteArray& packet, int offset, quint16 checksum)
{
    qToBigEndian(checksum, packet.data() + offset);
}

QByteArray ipHeader(quint32 from, quint32 to, int payloadLength)
{
    QByteArray header;
    appendBigEndian(header, quint16(0x4500)); // version 4, header of five words
    appendBigEndian(header, quint16(IpHeaderLength + payloadLength));
    appendBigEndian(header, quint16(0));      // identification
    appendBigEndian(header, quint16(0x4000)); // do not fragment
    appendBigEndian(header, quint16(0x4006)); // time to live 64, TCP
    appendBigEndian(header, quint16(0));
    appendBigEndian(header, from);
    appendBigEndian(header, to);
    putChecksum(header, 10, internetChecksum(header));
    return header;
}

struct TcpFields {
    quint16 fromPort, toPort;
    quint32 sequence, acknowledged;
    quint8 flags;
};

QByteArray tcpSegment(const TcpFields& fields, const QByteArray& bytes)
{
    QByteArray segment;
    appendBigEndian(segment, fields.fromPort);
    appendBigEndian(segment, fields.toPort);
    appendBigEndian(segment, fields.sequence);
    appendBigEndian(segment, fields.acknowledged);
    appendBigEndian(segment, quint16(0x5000 | fields.flags)); // header of five words
    appendBigEndian(segment, quint16(0xFFFF));                // window
    appendBigEndian(segment, quint32(0));                     // checksum, urgent pointer
    segment.append(bytes);
    // The pseudo header: both addresses, protocol 6, segment length.
    const quint32 sum = (ClientAddress >> 16) + (ClientAddress & 0xFFFF) +
                        (ControllerAddress >> 16) + (ControllerAddress & 0xFFFF) + 6 +
                        quint32(segment.size());
    putChecksum(segment, 16, internetChecksum(segment, sum));
    return segment;
}

QByteArray captureHeader()
{
    QByteArray header;
    appendNative(header, CaptureMagic);
    appendNative(header, quint16(2)); // version 2.4
    appendNative(header, quint16(4));
    appendNative(header, quint32(0)); // times are UTC
    appendNative(header, quint32(0));
    appendNative(header, LongestCapture);
    appendNative(header, LinkTypeRawIp);
    return header;
}

QByteArray recordHeader(int packetLength)
{
    using namespace std::chrono;
    const auto now = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    QByteArray header;
    appendNative(header, quint32(now / 1000000));
    appendNative(header, quint32(now % 1000000));
    appendNative(header, quint32(packetLength));
    appendNative(header, quint32(packetLength));
    return header;
}

void writeAndFlush(std::FILE* file, const QByteArray& bytes)
{
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), file);
    std::fflush(file);
}

FrameTrace::Direction opposite(FrameTrace::Direction direction)
{
    return direction == FrameTrace::ToController ? FrameTrace::FromController
                                                 : FrameTrace::ToController;
}

} // namespace

std::unique_ptr<FrameTrace> FrameTrace::open(const QString& fileOrDash, QString* error)
{
    if (fileOrDash == QLatin1String("-"))
        return std::unique_ptr<FrameTrace>(new FrameTrace(nullptr));
    std::FILE* file = std::fopen(QFile::encodeName(fileOrDash).constData(), "wb");
    if (file == nullptr) {
        *error = QStringLiteral("cannot write trace file %1: %2")
                     .arg(fileOrDash, QString::fromLocal8Bit(std::strerror(errno)));
        return nullptr;
    }
    writeAndFlush(file, captureHeader());
    return std::unique_ptr<FrameTrace>(new FrameTrace(file));
}

FrameTrace::FrameTrace(std::FILE* captureFile) : file(captureFile) {}

FrameTrace::~FrameTrace()
{
    if (file != nullptr)
        std::fclose(file);
}

int FrameTrace::newConnection()
{
    const std::lock_guard<std::mutex> lock(mutex);
    const int connection = int(connections.size());
    connections.emplace_back();
    if (file != nullptr) {
        writeSegment(connection, ToController, FlagSyn, QByteArray());
        connections.back().nextSequence[ToController] = 1;
        writeSegment(connection, FromController, FlagSyn | FlagAck, QByteArray());
        connections.back().nextSequence[FromController] = 1;
        writeSegment(connection, ToController, FlagAck, QByteArray());
    }
    return connection;
}

void FrameTrace::record(int connection, Direction direction, const QByteArray& bytes)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (connection < 0 || size_t(connection) >= connections.size())
        return;
    if (file == nullptr) {
        writeHexLine(connection, direction, bytes);
        return;
    }
    for (int i = 0; i < bytes.size(); i += LongestSegment)
        writeSegment(connection, direction, FlagPush | FlagAck, bytes.mid(i, LongestSegment));
}

void FrameTrace::writeSegment(int connection, Direction direction, quint8 flags,
                              const QByteArray& bytes)
{
    Connection& state = connections[size_t(connection)];
    const bool fromClient = direction == ToController;
    TcpFields fields;
    fields.fromPort = fromClient ? clientPort(connection) : ControllerPort;
    fields.toPort = fromClient ? ControllerPort : clientPort(connection);
    fields.sequence = state.nextSequence[direction];
    fields.acknowledged = state.nextSequence[opposite(direction)];
    fields.flags = flags;
    const QByteArray segment = tcpSegment(fields, bytes);
    const QByteArray packet =
        ipHeader(fromClient ? ClientAddress : ControllerAddress,
                 fromClient ? ControllerAddress : ClientAddress, int(segment.size())) +
        segment;
    // One write a record: a program killed in between leaves whole records behind.
    writeAndFlush(file, recordHeader(int(packet.size())) + packet);
    state.nextSequence[direction] += quint32(bytes.size());
}

void FrameTrace::writeHexLine(int connection, Direction direction, const QByteArray& bytes)
{
    const QByteArray time =
        QDateTime::currentDateTime().toString(QStringLiteral("HH:mm:ss.zzz")).toLatin1();
    const char* arrow = direction == ToController ? " > " : " < ";
    writeAndFlush(stderr,
                  time + " #" + QByteArray::number(connection) + arrow + bytes.toHex() + '\n');
}

} // namespace s7200::wire
