#ifndef PANEL_CONVERSATION_H
#define PANEL_CONVERSATION_H

#include "wire/tcp_streams.h"

#include <QByteArray>
#include <QHostAddress>
#include <QVector>

namespace s7200::panel
{

/// A request and what its sender took for the reply.
struct Exchange {
    qint64 number = 0;  ///< Of the request's frame in the capture.
    int connection = 0; ///< In the capture.
    QByteArray request;
    QByteArray reply; ///< As a host gives it to the driver: empty after silence.
};

/// All that passed between one client and one controller, over any number of connections, one
/// after the other.
struct Conversation {
    wire::TcpEnd client; ///< Port of the first connection.
    wire::TcpEnd controller;
    QVector<Exchange> exchanges;
    bool endsUnanswered = false; ///< The capture ends while the last request awaits its reply.
    int gaps = 0;                ///< Places where bytes are missing in the capture.
    int failedAttempts = 0;      ///< To connect. A host does not ask its driver before it has.
};

/// Follows each client's requests through a capture, by the same rules by which the host side
/// tells which reply belongs to which request.
QVector<Conversation> conversationsOf(const QVector<wire::StreamEvent>& events,
                                      const QVector<wire::TcpStreams::Connection>& connections);

} // namespace s7200::panel

#endif
