#include "wire/frame_trace.h"

#include <QDateTime>
#include <QFile>
#include <QtEndian>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace s7200::wire
{

namespace
{

constexpr quint32 CaptureMagic = 0xA1B2C3D4; // microseconds, in this machine's byte order
constexpr quint32 LinkTypeRawIp = 101;       // IPv4 or IPv6, by the version field
constexpr quint32 LongestCapture = 65535;

constexpr int LongestSegment = 1440;    // fits with either IP header
constexpr quint16 ControllerPort = 102; // ISO-on-TCP
constexpr int FirstClientPort = 49152;
constexpr int ClientPorts = 16384;

constexpr quint8 Tcp = 6;
constexpr quint8 FlagFin = 0x01;
constexpr quint8 FlagSyn = 0x02;
constexpr quint8 FlagReset = 0x04;
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

QByteArray textOf(const TcpEnd& end)
{
    const QByteArray address = end.address.toString().toLatin1();
    return (address.contains(':') ? '[' + address + ']' : address) + ':' +
           QByteArray::number(end.port);
}

/// Four or sixteen bytes; four too for an IPv4 address that a socket shows as IPv6.
QByteArray addressBytes(const QHostAddress& address)
{
    bool isIpv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIpv4);
    QByteArray bytes;
    if (isIpv4) {
        appendBigEndian(bytes, ipv4);
        return bytes;
    }
    const Q_IPV6ADDR ipv6 = address.toIPv6Address();
    return QByteArray(reinterpret_cast<const char*>(&ipv6), int(sizeof ipv6));
}

/// Stands for an end that is not known: 1 for a client's, 2 for a controller's.
QHostAddress documentationAddress(bool ipv6, int host)
{
    return QHostAddress(
        (ipv6 ? QStringLiteral("2001:db8::%1") : QStringLiteral("192.0.2.%1")).arg(host));
}

/// The Internet checksum (RFC 1071).
quint16 internetChecksum(const QByteArray& bytes)
{
    quint32 sum = 0;
    for (int i = 0; i < bytes.size(); ++i)
        sum += quint32(quint8(bytes.at(i))) << (i % 2 == 0 ? 8 : 0);
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return quint16(~sum & 0xFFFF);
}

QByteArray ipv4Header(const QByteArray& from, const QByteArray& to, int payloadLength)
{
    QByteArray header;
    appendBigEndian(header, quint16(0x4500)); // version 4, header of five words
    appendBigEndian(header, quint16(20 + payloadLength));
    appendBigEndian(header, quint16(0));      // identification
    appendBigEndian(header, quint16(0x4000)); // do not fragment
    header.append(char(64));                  // time to live
    header.append(char(Tcp));
    appendBigEndian(header, quint16(0));
    header += from + to;
    qToBigEndian(internetChecksum(header), header.data() + 10);
    return header;
}

QByteArray ipv6Header(const QByteArray& from, const QByteArray& to, int payloadLength)
{
    QByteArray header;
    appendBigEndian(header, quint32(0x60000000)); // version 6
    appendBigEndian(header, quint16(payloadLength));
    header.append(char(Tcp));
    header.append(char(64)); // hop limit
    return header + from + to;
}

struct TcpFields {
    quint16 fromPort, toPort;
    quint32 sequence, acknowledged;
    quint8 flags;
};

QByteArray tcpSegment(const TcpFields& fields, const QByteArray& bytes, const QByteArray& addresses)
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
    // In front of it, for the checksum alone: both addresses, protocol and length.
    QByteArray pseudo = addresses;
    appendBigEndian(pseudo, quint16(Tcp));
    appendBigEndian(pseudo, quint16(segment.size()));
    qToBigEndian(internetChecksum(pseudo + segment), segment.data() + 16);
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

QString systemError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

FrameTrace::Direction opposite(FrameTrace::Direction direction)
{
    return direction == FrameTrace::ToController ? FrameTrace::FromController
                                                 : FrameTrace::ToController;
}

} // namespace

std::unique_ptr<FrameTrace> FrameTrace::open(const QString& fileOrDash, Existing existing,
                                             QString* error)
{
    if (fileOrDash == QLatin1String("-"))
        return std::unique_ptr<FrameTrace>(new FrameTrace(STDERR_FILENO, QString()));
    constexpr int Flags = O_WRONLY | O_CREAT | O_CLOEXEC;
    const QByteArray path = QFile::encodeName(fileOrDash);
    int descriptor = ::open(path.constData(), Flags | O_EXCL, 0666);
    if (descriptor < 0 && errno == EEXIST) {
        struct stat found = {};
        const bool holdsNothing = ::stat(path.constData(), &found) == 0 &&
                                  (!S_ISREG(found.st_mode) || found.st_size == 0);
        if (existing == KeepExisting && !holdsNothing) {
            *error = QStringLiteral("trace file %1 exists already; --force overwrites it")
                         .arg(fileOrDash);
            return nullptr;
        }
        descriptor = ::open(path.constData(), Flags | O_TRUNC, 0666);
    }
    if (descriptor < 0) {
        *error = QStringLiteral("cannot write trace file %1: %2").arg(fileOrDash, systemError());
        return nullptr;
    }
    std::unique_ptr<FrameTrace> trace(new FrameTrace(descriptor, fileOrDash));
    trace->writeRecord(captureHeader());
    return trace;
}

FrameTrace::FrameTrace(int descriptor, const QString& name)
    : m_descriptor(descriptor), m_hexLines(name.isEmpty()), m_fileName(name)
{
}

FrameTrace::~FrameTrace()
{
    if (!m_hexLines)
        ::close(m_descriptor);
}

QString FrameTrace::error() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_error;
}

FrameTrace::Connection& FrameTrace::addConnection(const TcpEnd& client, const TcpEnd& controller)
{
    Connection& state = m_connections[m_nextId];
    state.end[ToController] = client;
    state.end[FromController] = controller;
    const QHostAddress& known = controller.address.isNull() ? client.address : controller.address;
    const bool ipv6 = !known.isNull() && addressBytes(known).size() > 4;
    if (client.address.isNull())
        state.end[ToController].address = documentationAddress(ipv6, 1);
    if (controller.address.isNull())
        state.end[FromController].address = documentationAddress(ipv6, 2);
    if (client.port == 0)
        state.end[ToController].port = quint16(FirstClientPort + m_nextId % ClientPorts);
    if (controller.port == 0)
        state.end[FromController].port = ControllerPort;
    ++m_nextId;
    return state;
}

int FrameTrace::newConnection(const TcpEnd& client, const TcpEnd& controller)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const int id = m_nextId;
    Connection& state = addConnection(client, controller);
    if (m_hexLines) {
        writeHexLine(id, " connected to " + textOf(state.end[FromController]));
        return id;
    }
    writeSegment(state, ToController, FlagSyn);
    writeSegment(state, FromController, FlagSyn | FlagAck);
    writeSegment(state, ToController, FlagAck);
    return id;
}

void FrameTrace::failedConnection(const TcpEnd& controller)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const int id = m_nextId;
    Connection& state = addConnection(TcpEnd(), controller);
    if (m_hexLines) {
        writeHexLine(id, " no connection to " + textOf(state.end[FromController]));
    } else {
        writeSegment(state, ToController, FlagSyn);
        writeSegment(state, FromController, FlagReset | FlagAck);
    }
    m_connections.erase(id);
}

void FrameTrace::record(int connection, Direction direction, const QByteArray& bytes)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_connections.find(connection);
    if (found == m_connections.end() || bytes.isEmpty())
        return;
    if (m_hexLines) {
        writeHexLine(connection, (direction == ToController ? " > " : " < ") + bytes.toHex());
        return;
    }
    for (int i = 0; i < bytes.size(); i += LongestSegment)
        writeSegment(found->second, direction, FlagPush | FlagAck, bytes.mid(i, LongestSegment));
}

void FrameTrace::closeConnection(int connection, Direction by)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_connections.find(connection);
    if (found == m_connections.end())
        return;
    if (m_hexLines) {
        writeHexLine(connection, by == ToController ? " closed" : " closed by the controller");
    } else {
        writeSegment(found->second, by, FlagFin | FlagAck);
        writeSegment(found->second, opposite(by), FlagFin | FlagAck);
        writeSegment(found->second, by, FlagAck);
    }
    m_connections.erase(found);
}

void FrameTrace::writeSegment(Connection& state, Direction direction, quint8 flags,
                              const QByteArray& bytes)
{
    const TcpEnd& from = state.end[direction];
    const TcpEnd& to = state.end[opposite(direction)];
    TcpFields fields;
    fields.fromPort = from.port;
    fields.toPort = to.port;
    fields.sequence = state.nextSequence[direction];
    fields.acknowledged = (flags & FlagAck) != 0 ? state.nextSequence[opposite(direction)] : 0;
    fields.flags = flags;
    const QByteArray fromAddress = addressBytes(from.address);
    const QByteArray toAddress = addressBytes(to.address);
    const QByteArray segment = tcpSegment(fields, bytes, fromAddress + toAddress);
    const int length = int(segment.size());
    const QByteArray packet =
        (fromAddress.size() == 4 ? ipv4Header(fromAddress, toAddress, length)
                                 : ipv6Header(fromAddress, toAddress, length)) +
        segment;
    // One write a record: a program killed in between leaves whole records behind.
    writeRecord(recordHeader(int(packet.size())) + packet);
    state.nextSequence[direction] += quint32(bytes.size());
    if ((flags & (FlagSyn | FlagFin)) != 0)
        ++state.nextSequence[direction];
}

void FrameTrace::writeHexLine(int connection, const QByteArray& text)
{
    const QByteArray time =
        QDateTime::currentDateTime().toString(QStringLiteral("HH:mm:ss.zzz")).toLatin1();
    writeRecord(time + " #" + QByteArray::number(connection) + text + '\n');
}

/// Nothing more once it has failed; what a full disk has taken of the record is cut off again.
void FrameTrace::writeRecord(const QByteArray& bytes)
{
    if (!m_error.isEmpty())
        return;
    for (int done = 0; done < bytes.size();) {
        const auto written =
            ::write(m_descriptor, bytes.constData() + done, size_t(bytes.size() - done));
        if (written > 0) {
            done += int(written);
        } else if (errno != EINTR) {
            m_error = QStringLiteral("cannot write %1: %2")
                          .arg(m_hexLines ? QStringLiteral("the trace to standard error")
                                          : QStringLiteral("trace file ") + m_fileName,
                               systemError());
            // Fails for a device, which has nothing to cut.
            if (!m_hexLines && ::ftruncate(m_descriptor, m_wholeBytes) == 0)
                m_error += QStringLiteral(" (what was recorded before can be read)");
            return;
        }
    }
    m_wholeBytes += bytes.size();
}

} // namespace s7200::wire
