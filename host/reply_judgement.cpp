#include "host/reply_judgement.h"

#include "wire/s7_fields.h"

namespace s7200
{

using wire::byteAt;
using wire::Function;
using wire::wordAt;

namespace
{

constexpr int RemoteTrailingBytes = 2;
constexpr int AckHeaderEnd = 19; ///< Parameters begin here.

Failure failure(Cause cause, const QString& detail)
{
    return {cause, detail};
}

Failure notS7(const QByteArray& reply)
{
    constexpr int Shown = 8;
    return failure(Cause::NotS7, QStringLiteral("not an S7 reply: %1%2")
                                     .arg(QString::fromLatin1(reply.left(Shown).toHex(' ')),
                                          QLatin1String(reply.size() > Shown ? " ..." : "")));
}

Failure wrongLength(int length, int wanted)
{
    return failure(Cause::WrongLength,
                   QStringLiteral("a reply of %1 bytes in place of %2").arg(length).arg(wanted));
}

QString reasonOf(const QByteArray& disconnect)
{
    return describe(wire::DisconnectReason(byteAt(disconnect, wire::DisconnectReasonOffset)));
}

Failure judgeConfirm(const SentFrame& frame, const QByteArray& reply)
{
    if (byteAt(reply, 0) != 3)
        return notS7(reply);
    if (isDisconnect(reply))
        return failure(Cause::ConnectionRefused,
                       QStringLiteral("the connection was refused, %1 (are the TSAPs right?)")
                           .arg(reasonOf(reply)));
    if (wire::tpduType(reply) != wire::Tpdu::ConnectionConfirm)
        return notS7(reply);
    return reply.size() == frame.replyLength ? Failure()
                                             : wrongLength(int(reply.size()), frame.replyLength);
}

bool isCutShort(const QByteArray& reply)
{
    return byteAt(reply, 0) == 3 && byteAt(reply, 1) == 0 &&
           reply.size() < wordAt(reply, wire::TpktLengthOffset);
}

/// TPKT, data TPDU and S7 header, whatever it carries.
bool isS7Reply(const QByteArray& reply)
{
    const auto rosctr = wire::Rosctr(byteAt(reply, wire::RosctrOffset));
    return byteAt(reply, 0) == 3 && byteAt(reply, wire::CotpLengthOffset) == 2 &&
           wire::isS7Pdu(reply) && reply.size() >= AckHeaderEnd &&
           (rosctr == wire::Rosctr::Ack || rosctr == wire::Rosctr::AckData);
}

bool lengthsAgree(const QByteArray& reply, int trailing)
{
    const int tpkt = wordAt(reply, wire::TpktLengthOffset);
    return tpkt + trailing == reply.size() &&
           tpkt == AckHeaderEnd + wordAt(reply, wire::ParameterLengthOffset) +
                       wordAt(reply, wire::DataLengthOffset);
}

Failure judgeFunction(const SentFrame& frame, const QByteArray& reply)
{
    const int function = byteAt(reply, wire::AckFunctionOffset);
    if (!frame.remote && function != byteAt(frame.bytes, wire::JobFunctionOffset))
        return failure(Cause::WrongReference, QStringLiteral("a reply to another request"));
    if (function != int(Function::Read) && function != int(Function::Write))
        return Failure();
    if (wordAt(reply, wire::ParameterLengthOffset) != 2 ||
        wordAt(reply, wire::DataLengthOffset) < 1 || byteAt(reply, wire::AckItemCountOffset) != 1)
        return failure(Cause::WrongLength, QStringLiteral("not a reply of one item"));
    const auto code = wire::ItemCode(byteAt(reply, wire::ItemCodeOffset));
    if (code != wire::ItemCode::Success)
        return failure(Cause::Refused, describe(code));
    return Failure();
}

} // namespace

bool isDisconnect(const QByteArray& frame)
{
    return byteAt(frame, 0) == 3 && wire::tpduType(frame) == wire::Tpdu::DisconnectRequest &&
           frame.size() > wire::DisconnectReasonOffset &&
           wordAt(frame, wire::TpktLengthOffset) == frame.size();
}

Failure judgeDisconnect(const QByteArray& frame)
{
    return failure(Cause::Closed,
                   QStringLiteral("the controller disconnected: %1").arg(reasonOf(frame)));
}

Failure judgeUnasked(const QByteArray& bytes)
{
    return notS7(bytes);
}

bool isConnectionRequest(const SentFrame& frame)
{
    return !frame.remote && wire::tpduType(frame.bytes) == wire::Tpdu::ConnectionRequest;
}

bool isHandshake(const SentFrame& frame)
{
    return isConnectionRequest(frame) ||
           (!frame.remote &&
            byteAt(frame.bytes, wire::JobFunctionOffset) == int(Function::SetupCommunication));
}

Failure judgeReply(const SentFrame& frame, const QByteArray& reply)
{
    if (isCutShort(reply))
        return failure(Cause::WrongLength, QStringLiteral("a reply cut short: %1 of %2 bytes")
                                               .arg(reply.size())
                                               .arg(wordAt(reply, wire::TpktLengthOffset)));
    if (isConnectionRequest(frame))
        return judgeConfirm(frame, reply);
    if (isDisconnect(reply))
        return judgeDisconnect(reply);
    if (!isS7Reply(reply))
        return notS7(reply);
    if (!lengthsAgree(reply, frame.remote ? RemoteTrailingBytes : 0))
        return failure(
            Cause::WrongLength,
            QStringLiteral("a reply whose lengths do not agree, %1 bytes").arg(reply.size()));
    const bool setup = isHandshake(frame);
    if (!setup && !frame.remote &&
        wordAt(reply, wire::PduReferenceOffset) != wordAt(frame.bytes, wire::PduReferenceOffset))
        return failure(Cause::WrongReference, QStringLiteral("a reply to another request"));
    const auto error = wire::JobError(wordAt(reply, wire::ErrorClassOffset));
    if (error != wire::JobError::None)
        return failure(setup ? Cause::SetupRefused : Cause::Refused, describe(error));
    const Failure wrong = judgeFunction(frame, reply);
    if (wrong || frame.remote)
        return wrong;
    return reply.size() == frame.replyLength ? Failure()
                                             : wrongLength(int(reply.size()), frame.replyLength);
}

Failure judgeBadReply(const SentFrame& frame, const QByteArray& reply)
{
    const Failure found = judgeReply(frame, reply);
    if (found)
        return found;
    if (isHandshake(frame))
        return failure(Cause::SetupRefused, QStringLiteral("a wrong reply to the handshake"));
    // A remote peer's reference is known to the driver alone, and its length is not told to us.
    if (frame.remote && reply.size() == frame.replyLength)
        return failure(Cause::WrongReference, QStringLiteral("a reply to another request"));
    if (reply.size() != frame.replyLength)
        return wrongLength(int(reply.size()), frame.replyLength);
    return failure(Cause::WrongLength,
                   QStringLiteral("a reply with a wrong field, %1 bytes").arg(reply.size()));
}

} // namespace s7200
