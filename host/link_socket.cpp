#include "host/link_socket.h"

#include <QtEndian>

#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace s7200
{

namespace
{

/// Input that nobody has asked for is thrown away only so many times in a row.
constexpr int MostStaleReads = 8;
constexpr std::size_t ReadSize = 4096;

/// As the system's calls want it.
struct SocketAddress {
    sockaddr_storage storage = {};
    socklen_t size = sizeof storage;

    SocketAddress() = default;

    SocketAddress(const QHostAddress& address, quint16 port)
    {
        if (address.protocol() == QAbstractSocket::IPv6Protocol) {
            sockaddr_in6 ipv6 = {};
            const Q_IPV6ADDR bytes = address.toIPv6Address();
            const QByteArray scope = address.scopeId().toLatin1();
            ipv6.sin6_family = AF_INET6;
            ipv6.sin6_port = qToBigEndian(port);
            std::memcpy(&ipv6.sin6_addr, &bytes, sizeof bytes);
            const quint32 index = if_nametoindex(scope.constData());
            ipv6.sin6_scope_id = index ? index : scope.toUInt();
            assign(ipv6);
        } else {
            sockaddr_in ipv4 = {};
            ipv4.sin_family = AF_INET;
            ipv4.sin_port = qToBigEndian(port);
            ipv4.sin_addr.s_addr = qToBigEndian(address.toIPv4Address());
            assign(ipv4);
        }
    }

    template <typename Address>
    void assign(const Address& address)
    {
        std::memcpy(&storage, &address, sizeof address);
        size = sizeof address;
    }

    sockaddr* data()
    {
        return reinterpret_cast<sockaddr*>(&storage);
    }

    /// The port is at the same place in both families.
    wire::TcpEnd end() const
    {
        sockaddr_in address = {};
        std::memcpy(&address, &storage, sizeof address);
        return {QHostAddress(reinterpret_cast<const sockaddr*>(&storage)),
                qFromBigEndian<quint16>(address.sin_port)};
    }
};

/// "connection refused", in English wherever it is.
QString errorText(int error)
{
    const char* const text = strerrordesc_np(error);
    return text ? QString::fromLatin1(text).toLower() : QStringLiteral("error %1").arg(error);
}

} // namespace

LinkSocket::LinkSocket(const Endpoint& endpoint, wire::FrameTrace* trace, QObject* parent)
    : QObject(parent), m_endpoint(endpoint), m_trace(trace),
      m_watcher(SocketWatcher::ofThisThread())
{
    connect(&m_lookup, &NameLookup::found, this, &LinkSocket::resolved);
}

LinkSocket::~LinkSocket()
{
    close();
}

void LinkSocket::open()
{
    close();
    QHostAddress address;
    if (!address.setAddress(m_endpoint.host)) {
        m_state = State::Resolving;
        m_lookup.start(m_endpoint.host);
        return;
    }
    m_state = State::Connecting;
    m_addresses = {address};
    tryNext();
}

void LinkSocket::close()
{
    if (m_state == State::Open && m_trace)
        m_trace->closeConnection(m_traceId, wire::FrameTrace::ToController);
    m_state = State::Closed;
    ++m_use;
    m_lookup.abandon();
    closeDescriptor();
}

void LinkSocket::resolved(const QList<QHostAddress>& addresses)
{
    if (m_state != State::Resolving)
        return;
    if (addresses.isEmpty()) {
        m_state = State::Closed;
        Q_EMIT openFailed(QStringLiteral("no such host"));
        return;
    }
    m_state = State::Connecting;
    m_addresses = addresses;
    tryNext();
}

void LinkSocket::tryNext()
{
    m_address = m_addresses.takeFirst();
    const int error = connectTo(m_address);
    if (error == 0)
        return;
    closeDescriptor();
    const auto tell = [this, error, use = m_use] {
        if (use == m_use) // not closed meanwhile
            attempted(error);
    };
    QMetaObject::invokeMethod(this, tell, Qt::QueuedConnection);
}

/// Begins it: 0, or why it cannot be begun.
int LinkSocket::connectTo(const QHostAddress& address)
{
    SocketAddress peer(address, m_endpoint.port);
    m_descriptor =
        ::socket(peer.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
    if (m_descriptor < 0)
        return errno;
    // A request is one small segment, and the next one comes when it was answered.
    const int on = 1;
    ::setsockopt(m_descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (::connect(m_descriptor, peer.data(), peer.size) < 0 && errno != EINPROGRESS)
        return errno;
    const bool isWatched = m_watcher->watch(m_descriptor, SocketWatcher::Await::InputAndRoom, this);
    return isWatched ? 0 : errno;
}

void LinkSocket::socketReady()
{
    if (m_state == State::Connecting) {
        int error = 0;
        socklen_t size = sizeof error;
        ::getsockopt(m_descriptor, SOL_SOCKET, SO_ERROR, &error, &size);
        attempted(error);
        return;
    }
    if (!m_unsent.isEmpty()) {
        write(std::exchange(m_unsent, {}));
        if (m_unsent.isEmpty())
            m_watcher->await(m_descriptor, SocketWatcher::Await::Input);
    }
    read();
}

void LinkSocket::attempted(int error)
{
    if (error == 0) {
        connected();
        return;
    }
    closeDescriptor();
    if (m_trace)
        m_trace->failedConnection({m_address, m_endpoint.port});
    if (!m_addresses.isEmpty()) {
        tryNext();
        return;
    }
    m_state = State::Closed;
    Q_EMIT openFailed(errorText(error));
}

void LinkSocket::connected()
{
    m_state = State::Open;
    m_hasSent = false;
    m_watcher->await(m_descriptor, SocketWatcher::Await::Input);
    if (m_trace) {
        SocketAddress own;
        SocketAddress peer;
        ::getsockname(m_descriptor, own.data(), &own.size);
        ::getpeername(m_descriptor, peer.data(), &peer.size);
        m_traceId = m_trace->newConnection(own.end(), peer.end());
    }
    Q_EMIT opened();
}

void LinkSocket::read()
{
    char bytes[ReadSize];
    const ssize_t size = ::recv(m_descriptor, bytes, sizeof bytes, 0);
    if (size > 0) {
        record(wire::FrameTrace::FromController, bytes, size);
        Q_EMIT received(QByteArray(bytes, int(size)));
    } else if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
        ended();
    }
}

void LinkSocket::ended()
{
    if (m_trace)
        m_trace->closeConnection(m_traceId, wire::FrameTrace::FromController);
    m_state = State::Closed;
    closeDescriptor();
    Q_EMIT closed();
}

void LinkSocket::send(const QByteArray& frame)
{
    if (m_state != State::Open)
        return;
    if (std::exchange(m_hasSent, true))
        dropStaleInput();
    record(wire::FrameTrace::ToController, frame.constData(), frame.size());
    if (m_unsent.isEmpty())
        write(frame);
    else
        m_unsent += frame;
}

/// What does not go out now goes when there is room; that the connection has ended, reading tells.
void LinkSocket::write(const QByteArray& bytes)
{
    const ssize_t sent =
        ::send(m_descriptor, bytes.constData(), std::size_t(bytes.size()), MSG_NOSIGNAL);
    if (sent == bytes.size() || (sent < 0 && errno != EAGAIN && errno != EINTR))
        return;
    m_unsent = bytes.mid(int(std::max<ssize_t>(sent, 0)));
    m_watcher->await(m_descriptor, SocketWatcher::Await::InputAndRoom);
}

/// What has arrived but was not yet noticed cannot be the reply. Of a flood, which its owner gets
/// to see then, only so much: the others of this thread want to go on.
void LinkSocket::dropStaleInput()
{
    char stale[ReadSize];
    for (int round = 0; round < MostStaleReads; ++round) {
        const ssize_t size = ::recv(m_descriptor, stale, sizeof stale, 0);
        if (size <= 0)
            return; // an end will be told
        record(wire::FrameTrace::FromController, stale, size);
    }
}

void LinkSocket::record(wire::FrameTrace::Direction direction, const char* bytes, qint64 size)
{
    if (m_trace)
        m_trace->record(m_traceId, direction, QByteArray(bytes, int(size)));
}

void LinkSocket::closeDescriptor()
{
    if (m_descriptor < 0)
        return;
    m_watcher->forget(m_descriptor);
    ::close(m_descriptor);
    m_descriptor = -1;
    m_unsent.clear();
}

} // namespace s7200
