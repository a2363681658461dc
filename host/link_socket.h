#ifndef HOST_LINK_SOCKET_H
#define HOST_LINK_SOCKET_H

#include "host/name_lookup.h"
#include "host/socket_watcher.h"
#include "wire/frame_trace.h"

#include <s7200host/controller.h>

namespace s7200
{

/// The TCP connection to one controller (RFC 9293). Never blocks. Time-outs are its owner's:
/// close() ends whatever is under way.
class LinkSocket : public QObject, private SocketUser
{
    Q_OBJECT
public:
    /// `trace` may be null; it gets every byte as the socket gave it.
    LinkSocket(const Endpoint& endpoint, wire::FrameTrace* trace, QObject* parent);
    ~LinkSocket() override;

    /// Opens a new connection, the name looked up anew. Ends in opened() or openFailed(), and never
    /// before it returns.
    void open();

    /// Closes it, or gives up opening it. No signal comes any more.
    void close();

    /// True while open() still awaits a name server.
    bool isLookingUp() const
    {
        return m_state == State::Resolving;
    }

    /// Drops what has come in since the last signal, then sends. What comes before the first frame
    /// of a connection is kept, since it tells who is there.
    void send(const QByteArray& frame);

Q_SIGNALS:
    void opened();
    void openFailed(const QString& why);
    void received(const QByteArray& bytes);
    void closed();

private:
    enum class State { Closed, Resolving, Connecting, Open };

    void socketReady() override;
    void resolved(const QList<QHostAddress>& addresses);
    void tryNext();
    int connectTo(const QHostAddress& address);
    void attempted(int error);
    void connected();
    void read();
    void write(const QByteArray& bytes);
    void ended();
    void dropStaleInput();
    void record(wire::FrameTrace::Direction direction, const char* bytes, qint64 size);
    void closeDescriptor();

    const Endpoint m_endpoint;
    wire::FrameTrace* const m_trace;
    const std::shared_ptr<SocketWatcher> m_watcher;
    State m_state = State::Closed;
    NameLookup m_lookup;
    QList<QHostAddress> m_addresses; ///< Still to be tried.
    QHostAddress m_address;          ///< Being tried.
    int m_descriptor = -1;
    QByteArray m_unsent;
    bool m_hasSent = false; ///< On this connection.
    int m_traceId = 0;
    quint32 m_use = 0; ///< Counts close().
};

} // namespace s7200

#endif
