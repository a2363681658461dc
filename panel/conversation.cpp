#include "panel/conversation.h"

#include "host/reply_collector.h"

#include <vector>

namespace s7200::panel
{

using namespace s7200::wire;

namespace
{

/// True for the address that a trace gives a client of which it knows none: one that could not
/// connect.
bool isPlaceholder(const QHostAddress& address)
{
    return address.isInSubnet(QHostAddress(QStringLiteral("192.0.2.0")), 24) ||
           address.isInSubnet(QHostAddress(QStringLiteral("2001:db8::")), 32);
}

/// Builds a conversation from events.
class Listener
{
public:
    explicit Listener(const TcpStreams::Connection& first)
    {
        m_result.client = first.client;
        m_result.controller = first.controller;
    }

    /// True if the connection is one more of this conversation.
    bool adopts(const TcpStreams::Connection& connection)
    {
        const bool stranger = !connection.client.address.isEqual(m_result.client.address) &&
                              !isPlaceholder(connection.client.address) &&
                              !isPlaceholder(m_result.client.address);
        if (stranger || !connection.controller.address.isEqual(m_result.controller.address) ||
            connection.controller.port != m_result.controller.port)
            return false;
        if (isPlaceholder(m_result.client.address))
            m_result.client = connection.client;
        return true;
    }

    void hear(const StreamEvent& event)
    {
        if (event.kind == StreamEvent::AttemptFailed) {
            ++m_result.failedAttempts;
            return;
        }
        if (event.connection < m_connection)
            return; // of a connection that its client has given up
        if (event.connection != m_connection) {
            endWaiting();
            m_connection = event.connection;
            m_requests.clear();
        }
        if (event.afterGap) {
            ++m_result.gaps;
            m_requests.clear();
        }
        if (event.kind == StreamEvent::Closed)
            endWaiting();
        else if (event.direction == FrameTrace::ToController)
            hearClient(event);
        else
            hearController(event.bytes);
    }

    Conversation finish()
    {
        m_result.endsUnanswered = m_awaiting;
        endWaiting();
        return m_result;
    }

private:
    void hearClient(const StreamEvent& event)
    {
        m_requests.append(event.bytes);
        while (const std::optional<QByteArray> frame = m_requests.takeFrame()) {
            endWaiting();
            Exchange exchange;
            exchange.number = event.number;
            exchange.connection = event.connection;
            exchange.request = *frame;
            m_result.exchanges.append(exchange);
            m_awaiting = true;
            m_collector.begin(*frame);
        }
    }

    void hearController(const QByteArray& bytes)
    {
        m_collector.append(bytes);
        if (const std::optional<QByteArray> reply = m_collector.takeReply())
            answer(*reply);
        else if (m_collector.isHopeless())
            endWaiting();
    }

    void endWaiting()
    {
        if (m_awaiting)
            answer(m_collector.whatCameInstead());
    }

    void answer(const QByteArray& reply)
    {
        m_result.exchanges.last().reply = reply;
        m_awaiting = false;
    }

    Conversation m_result;
    int m_connection = -1;
    bool m_awaiting = false;
    TpktReassembler m_requests;
    ReplyCollector m_collector;
};

} // namespace

QVector<Conversation> conversationsOf(const QVector<StreamEvent>& events,
                                      const QVector<TcpStreams::Connection>& connections)
{
    std::vector<Listener> listeners;
    std::vector<int> listenerOf(size_t(connections.size()), -1);
    for (const StreamEvent& event : events) {
        int& index = listenerOf[size_t(event.connection)];
        const TcpStreams::Connection& connection = connections.at(event.connection);
        for (size_t i = 0; i < listeners.size() && index < 0; ++i) {
            if (listeners[i].adopts(connection))
                index = int(i);
        }
        if (index < 0) {
            index = int(listeners.size());
            listeners.emplace_back(connection);
        }
        listeners[size_t(index)].hear(event);
    }
    QVector<Conversation> conversations;
    for (Listener& listener : listeners) {
        const Conversation conversation = listener.finish();
        if (!conversation.exchanges.isEmpty())
            conversations.append(conversation);
    }
    return conversations;
}

} // namespace s7200::panel
