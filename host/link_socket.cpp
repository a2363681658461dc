#include "host/link_socket.h"

#include <QNetworkProxy>

#include <sys/socket.h>
#include <sys/types.h>

#include <algorithm>

namespace s7200
{

namespace
{

/// A peer that sends without being asked must not fill our memory.
constexpr int MostUnreadBytes = 64 * 1024;
constexpr int MostStaleReads = 64;

} // namespace

LinkSocket::LinkSocket(const Endpoint& endpoint, wire::FrameTrace* trace, QObject* parent)
    : QObject(parent), m_endpoint(endpoint), m_trace(trace)
{
    m_socket.setProxy(QNetworkProxy::NoProxy);
    m_socket.setReadBufferSize(MostUnreadBytes);
    connect(&m_lookup, &NameLookup::found, this, &LinkSocket::resolved);
    connect(&m_socket, &QTcpSocket::readyRead, this, [this] {
        const QByteArray bytes = take();
        if (m_state == State::Open && !bytes.isEmpty())
            Q_EMIT received(bytes);
    });
    // Queued: a socket may change its state while it is being told to do something.
    connect(
        &m_socket, &QTcpSocket::stateChanged, this,
        [this] {
            if (m_state == State::Connecting && m_socket.state() == QTcpSocket::ConnectedState)
                connected();
            else if (m_socket.state() == QTcpSocket::UnconnectedState)
                failed();
        },
        Qt::QueuedConnection);
}

void LinkSocket::open()
{
    close();
    QHostAddress address;
    if (address.setAddress(m_endpoint.host)) {
        m_addresses = {address};
        m_state = State::Connecting;
        tryNext();
        return;
    }
    m_state = State::Resolving;
    m_lookup.start(m_endpoint.host);
}

void LinkSocket::close()
{
    if (m_state == State::Open)
        traceEnd(wire::FrameTrace::ToController);
    m_state = State::Closed;
    m_lookup.abandon();
    m_socket.abort();
}

/// Past QTcpSocket where that is possible: asked to look for input or to write, it takes its
/// notifiers out of the event loop and puts them in again, which costs more the more links there
/// are.
void LinkSocket::send(const QByteArray& frame)
{
    dropStaleInput();
    if (m_socket.state() != QTcpSocket::ConnectedState)
        return; // which is told
    if (m_trace)
        m_trace->record(m_traceId, wire::FrameTrace::ToController, frame);
    const auto sent = ::send(int(m_socket.socketDescriptor()), frame.constData(),
                             std::size_t(frame.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent == frame.size())
        return;
    m_socket.write(frame.mid(int(std::max<ssize_t>(sent, 0))));
    m_socket.flush();
}

/// What has arrived but was not yet noticed cannot be the reply.
void LinkSocket::dropStaleInput()
{
    m_socket.readAll();
    char stale[4096];
    for (int round = 0; m_socket.state() == QTcpSocket::ConnectedState; ++round) {
        const auto size =
            ::recv(int(m_socket.socketDescriptor()), stale, sizeof stale, MSG_DONTWAIT);
        if (size <= 0)
            return;
        if (m_trace)
            m_trace->record(m_traceId, wire::FrameTrace::FromController,
                            QByteArray(stale, int(size)));
        if (round == MostStaleReads)
            m_socket.abort(); // it never stops; the others of this thread want to go on
    }
}

void LinkSocket::resolved(const QList<QHostAddress>& addresses)
{
    if (m_state != State::Resolving)
        return;
    if (addresses.isEmpty()) {
        fail(QStringLiteral("no such host"));
        return;
    }
    m_addresses = addresses;
    m_state = State::Connecting;
    tryNext();
}

void LinkSocket::tryNext()
{
    m_socket.abort();
    m_address = m_addresses.takeFirst();
    m_socket.connectToHost(m_address, m_endpoint.port);
}

void LinkSocket::connected()
{
    m_state = State::Open;
    m_socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
    if (m_trace)
        m_traceId = m_trace->newConnection({m_socket.localAddress(), m_socket.localPort()},
                                           {m_socket.peerAddress(), m_socket.peerPort()});
    Q_EMIT opened();
}

void LinkSocket::failed()
{
    if (m_state == State::Open) {
        traceEnd(wire::FrameTrace::FromController);
        m_state = State::Closed;
        Q_EMIT closed();
    } else if (m_state == State::Connecting) {
        if (m_trace)
            m_trace->failedConnection({m_address, m_endpoint.port});
        if (m_addresses.isEmpty())
            fail(m_socket.errorString().toLower());
        else
            tryNext();
    }
}

void LinkSocket::fail(const QString& why)
{
    m_state = State::Closed;
    Q_EMIT openFailed(why);
}

void LinkSocket::traceEnd(wire::FrameTrace::Direction by)
{
    if (m_trace)
        m_trace->closeConnection(m_traceId, by);
}

QByteArray LinkSocket::take()
{
    const QByteArray bytes = m_socket.readAll();
    if (m_trace && !bytes.isEmpty())
        m_trace->record(m_traceId, wire::FrameTrace::FromController, bytes);
    return bytes;
}

} // namespace s7200
