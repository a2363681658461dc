#ifndef HOST_LINK_SOCKET_H
#define HOST_LINK_SOCKET_H

#include "host/name_lookup.h"
#include "wire/frame_trace.h"

#include <s7200host/controller.h>

#include <QTcpSocket>

namespace s7200
{

/// The TCP connection to one controller. Never blocks. Time-outs are its owner's: close() ends
/// whatever is under way.
class LinkSocket : public QObject
{
    Q_OBJECT
public:
    /// `trace` may be null; it gets every byte as the socket gave it.
    LinkSocket(const Endpoint& endpoint, wire::FrameTrace* trace, QObject* parent);

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

    /// Drops what has come in since the last signal, then sends.
    void send(const QByteArray& frame);

Q_SIGNALS:
    void opened();
    void openFailed(const QString& why);
    void received(const QByteArray& bytes);
    void closed();

private:
    enum class State { Closed, Resolving, Connecting, Open };

    void resolved(const QList<QHostAddress>& addresses);
    void tryNext();
    void connected();
    void failed();
    void fail(const QString& why);
    void traceEnd(wire::FrameTrace::Direction by);
    void dropStaleInput();
    QByteArray take();

    const Endpoint m_endpoint;
    wire::FrameTrace* const m_trace;
    State m_state = State::Closed;
    NameLookup m_lookup;
    QList<QHostAddress> m_addresses; ///< Still to be tried.
    QHostAddress m_address;          ///< Being tried.
    QTcpSocket m_socket;
    int m_traceId = 0;
};

} // namespace s7200

#endif
