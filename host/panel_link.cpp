#include "host/panel_link.h"

#include "wire/frame_trace.h"
#include "wire/s7_fields.h"

#include <QNetworkProxy>

namespace s7200
{

namespace
{

// Offsets in a frame: TPKT, COTP, S7 header, parameters.
constexpr int TpduType = 5;
constexpr int ProtocolId = 7;
constexpr int Rosctr = 8;
constexpr int PduReference = 11; // two bytes
constexpr int JobFunction = 17;
constexpr int ErrorClass = 17;
constexpr int ErrorCode = 18;
constexpr int ReplyFunction = 19;
constexpr int ItemReturnCode = 21;

constexpr uchar ConnectionRequest = 0xE0;
constexpr uchar ConnectionConfirm = 0xD0;
constexpr uchar DisconnectRequest = 0x80;
constexpr uchar Data = 0xF0;
constexpr uchar S7 = 0x32;
constexpr uchar Ack = 2;
constexpr uchar AckData = 3;
constexpr uchar ReadVariable = 0x04;
constexpr uchar WriteVariable = 0x05;
constexpr uchar SetupCommunication = 0xF0;
constexpr uchar Success = 0xFF;

/// Bytes that a remote peer's reply has beyond the length in its TPKT header.
constexpr int RemoteTrailingBytes = 2;
/// A peer that sends without being asked must not fill our memory.
constexpr int MostUnreadBytes = 64 * 1024;

/// 0 behind the end.
uchar byteAt(const QByteArray& bytes, int index)
{
    return index < bytes.size() ? uchar(bytes.at(index)) : uchar(0);
}

bool isS7(const QByteArray& frame)
{
    return byteAt(frame, TpduType) == Data && byteAt(frame, ProtocolId) == S7;
}

/// True for a reply to an earlier frame: it came late, or twice. The setup job is left out since
/// its reply follows a connection confirm on a fresh connection.
bool answersAnother(const QByteArray& frame, const QByteArray& reply)
{
    if (!isS7(frame))
        return false;
    if ((byteAt(reply, TpduType) & 0xF0) == ConnectionConfirm)
        return true;
    return isS7(reply) && byteAt(frame, JobFunction) != SetupCommunication &&
           frame.mid(PduReference, 2) != reply.mid(PduReference, 2);
}

QString itemError(uchar code)
{
    switch (code) {
    case 0x01:
        return QStringLiteral("hardware fault");
    case 0x03:
        return QStringLiteral("access not allowed");
    case 0x05:
        return QStringLiteral("address out of range");
    case 0x06:
        return QStringLiteral("data type not supported");
    case 0x07:
        return QStringLiteral("data type and length do not match");
    case 0x0A:
        return QStringLiteral("object does not exist");
    default:
        return QStringLiteral("return code 0x%1").arg(code, 2, 16, QLatin1Char('0'));
    }
}

} // namespace

PanelLink::PanelLink(const LinkSettings& linkSettings, Waiter& loopWaiter,
                     const std::atomic<bool>& stopFlag)
    : settings(linkSettings), waiter(loopWaiter), stop(stopFlag),
      reassembler(linkSettings.remote ? RemoteTrailingBytes : 0)
{
    socket.setProxy(QNetworkProxy::NoProxy);
    socket.setReadBufferSize(MostUnreadBytes);
}

PanelLink::Exchange PanelLink::exchange(const QByteArray& frame)
{
    Exchange failed;
    if (opensConnection(frame)) {
        failed.answer = Answer::NoConnection;
        failed.detail = connectAfresh();
        if (!failed.detail.isEmpty())
            return failed;
    }
    dropStaleInput();
    if (socket.state() != QAbstractSocket::ConnectedState) {
        failed.answer = Answer::Closed;
        return failed;
    }
    if (settings.trace)
        settings.trace->record(traceConnection, wire::FrameTrace::ToController, frame);
    socket.write(frame);
    socket.flush();
    return awaitReply(frame);
}

void PanelLink::linkDeclaredDown()
{
    socket.abort();
    mayReopen = true;
}

bool PanelLink::opensConnection(const QByteArray& frame) const
{
    return settings.remote ? mayReopen : byteAt(frame, TpduType) == ConnectionRequest;
}

/// Returns what went wrong, or an empty text.
QString PanelLink::connectAfresh()
{
    socket.abort();
    reassembler.clear();
    const QDeadlineTimer deadline(settings.timeoutMs, Qt::PreciseTimer);
    socket.connectToHost(settings.controller.host, settings.controller.port);
    while (socket.state() != QAbstractSocket::ConnectedState) {
        if (socket.state() == QAbstractSocket::UnconnectedState)
            return socket.errorString().toLower();
        if (stop || deadline.hasExpired()) {
            socket.abort();
            return QStringLiteral("no TCP connection within %1 ms").arg(settings.timeoutMs);
        }
        waiter.wait(deadline);
    }
    socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
    mayReopen = false;
    if (settings.trace)
        traceConnection = settings.trace->newConnection({socket.localAddress(), socket.localPort()},
                                                        {socket.peerAddress(), socket.peerPort()});
    return QString();
}

/// What is in the line before a frame goes out cannot be its reply.
void PanelLink::dropStaleInput()
{
    waiter.poll();
    receive();
    while (const auto stale = reassembler.takeFrame()) {
        if (settings.trace)
            settings.trace->record(traceConnection, wire::FrameTrace::FromController, *stale);
    }
    reassembler.clear();
    received.clear();
    mismatched.clear();
}

void PanelLink::receive()
{
    if (!socket.isOpen())
        return;
    const QByteArray bytes = socket.readAll();
    reassembler.append(bytes);
    // More than any reply has; all of it is only wanted when it makes no sense.
    if (received.size() < MostUnreadBytes)
        received += bytes;
}

bool PanelLink::takeReply(const QByteArray& frame, QByteArray* reply)
{
    while (auto taken = reassembler.takeFrame()) {
        *reply = *taken;
        if (settings.trace)
            settings.trace->record(traceConnection, wire::FrameTrace::FromController, *reply);
        if (wire::isEmptyDataTpdu(*reply))
            continue;
        if (settings.remote || !answersAnother(frame, *reply))
            return true;
        mismatched = *reply;
    }
    return false;
}

PanelLink::Exchange PanelLink::awaitReply(const QByteArray& frame)
{
    Exchange exchange;
    exchange.answer = Answer::Reply;
    const QDeadlineTimer deadline(settings.timeoutMs, Qt::PreciseTimer);
    for (;;) {
        receive();
        if (takeReply(frame, &exchange.reply))
            return exchange;
        const bool closed = socket.state() != QAbstractSocket::ConnectedState;
        if (reassembler.isBroken() || closed || stop || deadline.hasExpired()) {
            // The driver judges what came, and says no; only silence is an empty reply.
            exchange.reply = mismatched;
            if (reassembler.isBroken() || reassembler.isMidFrame())
                exchange.reply = received;
            if (exchange.reply.isEmpty())
                exchange.answer = closed ? Answer::Closed : Answer::None;
            return exchange;
        }
        waiter.wait(deadline);
    }
}

QString refusalOf(const QByteArray& reply)
{
    if ((byteAt(reply, TpduType) & 0xF0) == DisconnectRequest)
        return QStringLiteral("the controller refused the connection");
    const uchar rosctr = byteAt(reply, Rosctr);
    if (!isS7(reply) || (rosctr != Ack && rosctr != AckData))
        return QString();
    const uchar errorClass = byteAt(reply, ErrorClass);
    const uchar errorCode = byteAt(reply, ErrorCode);
    if (errorClass != 0 || errorCode != 0)
        return QStringLiteral("error class 0x%1, code 0x%2")
            .arg(errorClass, 2, 16, QLatin1Char('0'))
            .arg(errorCode, 2, 16, QLatin1Char('0'));
    const uchar function = byteAt(reply, ReplyFunction);
    const bool hasItem =
        reply.size() > ItemReturnCode && (function == ReadVariable || function == WriteVariable);
    const uchar code = byteAt(reply, ItemReturnCode);
    return hasItem && code != Success ? itemError(code) : QString();
}

} // namespace s7200
