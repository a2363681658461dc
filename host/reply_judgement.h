#ifndef HOST_REPLY_JUDGEMENT_H
#define HOST_REPLY_JUDGEMENT_H

#include <s7200host/link.h>

#include <QByteArray>
#include <QString>

namespace s7200
{

/// Why something went wrong, for programs and for people.
struct Failure {
    Cause cause = Cause::None;
    QString detail;

    explicit operator bool() const
    {
        return cause != Cause::None;
    }
};

/// A frame of the driver's that was sent.
struct SentFrame {
    QByteArray bytes;
    int replyLength = 0; ///< As the driver expects it, of a local frame.
    bool remote = false; ///< A forwarding record.
};

/// True for a connection request (ISO 8073, CR): it needs a TCP connection of its own, since a
/// module refuses a second one on an old connection.
bool isConnectionRequest(const SentFrame& frame);

/// True for both frames of the handshake.
bool isHandshake(const SentFrame& frame);

/// True for a disconnect request (ISO 8073, DR): nothing more comes on that connection.
bool isDisconnect(const QByteArray& frame);

/// Why the connection is over after one.
Failure judgeDisconnect(const QByteArray& frame);

/// What is wrong with bytes that nothing has asked for.
Failure judgeUnasked(const QByteArray& bytes);

/// What a reply says against its request; nothing for a good one. The driver decides whether a
/// reply is good and does not say why not, and it takes a write that was refused by its item for a
/// good one: so a host has to look. Only a well-formed S7 reply to this very frame is ever
/// Cause::Refused or Cause::SetupRefused. `reply` must not be empty.
Failure judgeReply(const SentFrame& frame, const QByteArray& reply);

/// The same for a reply that the driver did not take for good, so never nothing.
Failure judgeBadReply(const SentFrame& frame, const QByteArray& reply);

} // namespace s7200

#endif
