#include "panel/link_probe.h"

#include "panel/frame_text.h"
#include "wire/frame_trace.h"
#include "wire/s7_fields.h"

#include <QNetworkProxy>

#include <algorithm>
#include <cmath>

namespace s7200::panel
{

using wire::FrameTrace;

namespace
{

/// Of each step: what it needs, and what usually lacks when it fails.
struct Hint {
    ProbeStep step;
    Cause cause; ///< None: any.
    const char* text;
};

constexpr Hint Hints[] = {
    {ProbeStep::LookUp, Cause::None,
     "the name is misspelt or no name server knows it; try the address"},
    {ProbeStep::Connect, Cause::Closed, // refused
     "the device is there but the port is closed: another address, another port, or a module "
     "without configuration"},
    {ProbeStep::Connect, Cause::TimedOut,
     "nothing has that address, it is switched off, or a firewall drops the packets"},
    {ProbeStep::Connect, Cause::None, "no route to that network; check cable, address and gateway"},
    {ProbeStep::TpduConnection, Cause::NotS7,
     "what listens there is no S7 module: another device, or another service's port"},
    {ProbeStep::TpduConnection, Cause::TimedOut,
     "what listens there is no S7 module, or one that hangs"},
    {ProbeStep::TpduConnection, Cause::WrongLength,
     "what listens there is no S7 module, or something on the way spoils replies"},
    {ProbeStep::TpduConnection, Cause::None,
     "the TSAPs are refused: the module has no connection configured with them, or all eight of "
     "its connections are taken"},
    {ProbeStep::Setup, Cause::WrongLength, "something on the way spoils replies"},
    {ProbeStep::Setup, Cause::None,
     "the TSAPs lead to something that does not speak S7, or not with clients"},
    {ProbeStep::Read, Cause::Refused,
     "the controller protects its memory by a password, or is no S7-200"},
    {ProbeStep::Read, Cause::TimedOut,
     "replies take longer than --timeout: a busy controller or a bad line"},
    {ProbeStep::Read, Cause::Closed,
     "somebody else took the connection, the controller restarted, or a device between cut it"},
};

ProbeStep stepOf(const QByteArray& frame)
{
    if (isConnectionRequest(frame))
        return ProbeStep::TpduConnection;
    return isSetup(frame) ? ProbeStep::Setup : ProbeStep::Read;
}

} // namespace

QString describe(ProbeStep step)
{
    switch (step) {
    case ProbeStep::LookUp:
        return QStringLiteral("name look-up");
    case ProbeStep::Connect:
        return QStringLiteral("TCP connection");
    case ProbeStep::TpduConnection:
        return QStringLiteral("TPDU connection");
    case ProbeStep::Setup:
        return QStringLiteral("setup communication");
    default:
        return QStringLiteral("read");
    }
}

QString usualCause(const ProbeResults& results, const ControllerSettings& settings)
{
    const ProbeStep step = results.step;
    if (step == ProbeStep::Read && settings.remoteAccess && results.roundTripsUs.isEmpty())
        return QStringLiteral("what listens there takes no forwarding records of remote access; "
                              "try without --remote");
    const bool handshake = step == ProbeStep::TpduConnection || step == ProbeStep::Setup;
    if (handshake && !results.roundTripsUs.isEmpty())
        return QStringLiteral("it was good before: the controller restarts, all eight of its "
                              "connections are taken, or the line is bad");
    Cause cause = results.failure.cause;
    if (results.socketError == QAbstractSocket::ConnectionRefusedError)
        cause = Cause::Closed;
    else if (results.socketError == QAbstractSocket::SocketTimeoutError)
        cause = Cause::TimedOut;
    const auto hint = std::find_if(std::begin(Hints), std::end(Hints), [&](const Hint& row) {
        return row.step == step && (row.cause == cause || row.cause == Cause::None);
    });
    QString text = hint == std::end(Hints) ? QString() : QLatin1String(hint->text);
    if (step == ProbeStep::TpduConnection)
        text += QStringLiteral(" (asked for: own TSAP %1, the controller's %2)")
                    .arg(wire::tsapText(settings.localTsap), wire::tsapText(settings.remoteTsap));
    return text;
}

qint64 ProbeResults::percentile(double share) const
{
    if (roundTripsUs.isEmpty())
        return 0;
    QVector<qint64> sorted = roundTripsUs;
    std::sort(sorted.begin(), sorted.end());
    const int rank = int(std::ceil(share * double(sorted.size()))) - 1;
    return sorted.at(std::max(0, rank));
}

LinkProbe::LinkProbe(const ControllerSettings& settings, std::unique_ptr<DriverDesk> driver,
                     int count, QObject* parent)
    : QObject(parent), m_settings(settings), m_desk(std::move(driver)), m_count(count),
      m_collector(settings.remoteAccess)
{
    m_desk->watch({});
    m_socket.setProxy(QNetworkProxy::NoProxy);
    for (QTimer* timer : {&m_timeout, &m_pause}) {
        timer->setSingleShot(true);
        timer->setTimerType(Qt::PreciseTimer);
    }
    connect(&m_timeout, &QTimer::timeout, this, &LinkProbe::timeUp);
    connect(&m_pause, &QTimer::timeout, this, &LinkProbe::goOn);
    connect(&m_lookup, &NameLookup::found, this, &LinkProbe::resolved);
    connect(&m_socket, &QTcpSocket::connected, this, &LinkProbe::tcpConnected);
    connect(&m_socket, &QTcpSocket::readyRead, this, &LinkProbe::receive);
    // Also comes when a connection could not be made. Queued: the next one may be tried then.
    connect(
        &m_socket, &QTcpSocket::stateChanged, this,
        [this] {
            if (m_socket.state() == QAbstractSocket::UnconnectedState)
                disconnected();
        },
        Qt::QueuedConnection);
}

LinkProbe::~LinkProbe()
{
    m_socket.disconnect(this);
}

const ProbeResults& LinkProbe::results() const
{
    return m_results;
}

void LinkProbe::start()
{
    connectAfresh();
}

void LinkProbe::connectAfresh()
{
    m_awaiting = false;
    {
        const QSignalBlocker quiet(m_socket);
        m_socket.abort();
    }
    if (m_settings.trace != nullptr && m_traceId >= 0)
        m_settings.trace->closeConnection(m_traceId, FrameTrace::ToController);
    m_traceId = -1;
    m_clock.start();
    m_timeout.start(m_settings.timeoutMs);
    QHostAddress address;
    if (address.setAddress(m_settings.endpoint.host)) {
        resolved({address});
        return;
    }
    m_lookingUp = true;
    m_lookup.start(m_settings.endpoint.host);
}

void LinkProbe::resolved(const QList<QHostAddress>& addresses)
{
    m_lookingUp = false;
    m_addresses = addresses;
    if (m_addresses.isEmpty())
        fail(ProbeStep::LookUp, {Cause::NoConnection, QStringLiteral("no such host")});
    else
        tryNext();
}

void LinkProbe::tryNext()
{
    m_socket.connectToHost(m_addresses.takeFirst(), m_settings.endpoint.port);
}

void LinkProbe::tcpConnected()
{
    if (++m_results.connections == 1)
        m_results.connectMs = double(m_clock.nsecsElapsed()) / 1e6;
    m_socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
    if (m_settings.trace != nullptr)
        m_traceId = m_settings.trace->newConnection({m_socket.localAddress(), m_socket.localPort()},
                                                    {m_socket.peerAddress(), m_socket.peerPort()});
    if (m_settings.remoteAccess && m_results.connections == 1)
        Q_EMIT connected();
    m_fresh = true;
    sendNext();
}

void LinkProbe::sendNext()
{
    const Protocol* pending = m_desk->pending();
    if (pending == nullptr) {
        finish(); // its list is never empty
        return;
    }
    // A second connection request on a connection would be refused.
    if (isConnectionRequest(pending->frame) && !m_fresh) {
        connectAfresh();
        return;
    }
    m_fresh = false;
    m_sent = SentFrame{pending->frame, pending->reply_len, m_settings.remoteAccess};
    if (!isHandshake(m_sent))
        ++m_results.reads;
    receive(); // what is in the line cannot be the reply
    m_collector.begin(m_sent.bytes);
    m_awaiting = true;
    if (m_settings.trace != nullptr)
        m_settings.trace->record(m_traceId, FrameTrace::ToController, m_sent.bytes);
    m_timeout.start(m_settings.timeoutMs);
    m_clock.start();
    m_socket.write(m_sent.bytes);
    m_socket.flush();
}

void LinkProbe::receive()
{
    const QByteArray bytes = m_socket.readAll();
    if (bytes.isEmpty())
        return;
    if (m_settings.trace != nullptr)
        m_settings.trace->record(m_traceId, FrameTrace::FromController, bytes);
    if (!m_awaiting)
        return;
    m_collector.append(bytes);
    if (const std::optional<QByteArray> reply = m_collector.takeReply())
        replied(*reply, Failure());
    else if (m_collector.isHopeless())
        replied(m_collector.whatCameInstead(), Failure());
}

void LinkProbe::disconnected()
{
    if (m_awaiting) {
        receive();
        if (m_awaiting)
            replied(m_collector.whatCameInstead(),
                    {Cause::Closed, QStringLiteral("the connection was closed by the controller")});
        return;
    }
    if (!m_timeout.isActive() || m_lookingUp)
        return; // between two reads: the next one finds out
    if (m_addresses.isEmpty())
        fail(ProbeStep::Connect, {Cause::NoConnection, m_socket.errorString().toLower()},
             m_socket.error());
    else
        tryNext();
}

void LinkProbe::timeUp()
{
    if (m_awaiting) {
        const QByteArray instead = m_collector.whatCameInstead();
        Failure failure;
        if (instead.isEmpty())
            failure = {Cause::TimedOut,
                       QStringLiteral("no reply within %1 ms").arg(m_settings.timeoutMs)};
        replied(instead, failure);
        return;
    }
    m_lookup.abandon();
    fail(std::exchange(m_lookingUp, false) ? ProbeStep::LookUp : ProbeStep::Connect,
         {Cause::NoConnection, QStringLiteral("nothing within %1 ms").arg(m_settings.timeoutMs)},
         QAbstractSocket::SocketTimeoutError);
}

/// `failure`: why nothing else came; none for a reply, which is judged.
void LinkProbe::replied(const QByteArray& reply, const Failure& failure)
{
    const qint64 roundTripUs = m_clock.nsecsElapsed() / 1000;
    m_awaiting = false;
    m_timeout.stop();
    const int result = m_desk->reply(reply);
    if (result == Result_Good || result == Result_RemoteStored) {
        const ProbeStep step = stepOf(m_sent.bytes);
        if (m_settings.remoteAccess || step == ProbeStep::Read) {
            readAnswered(roundTripUs);
            return;
        }
        if (step == ProbeStep::Setup) {
            m_results.grantedPdu = wire::wordAt(reply, wire::AckPduLengthOffset);
            if (!m_shaken)
                Q_EMIT connected();
            m_shaken = true;
        }
        sendNext();
        return;
    }
    fail(stepOf(m_sent.bytes), failure ? failure : judgeBadReply(m_sent, reply));
}

void LinkProbe::readAnswered(qint64 roundTripUs)
{
    m_shaken = true;
    m_results.roundTripsUs.append(roundTripUs);
    Q_EMIT answered(m_results.reads, roundTripUs);
    if (m_results.reads >= m_count)
        finish();
    else
        m_pause.start(m_settings.intervalMs);
}

/// After the first handshake everything that fails counts as one read, so that there is an end.
void LinkProbe::fail(ProbeStep step, const Failure& failure,
                     QAbstractSocket::SocketError socketError)
{
    m_timeout.stop();
    m_results.socketError = socketError;
    m_results.step = step;
    m_results.failure = failure;
    ++m_results.failures[std::size_t(failure.cause)];
    if (!m_shaken) {
        m_results.gaveUp = true;
        finish();
        return;
    }
    if (step != ProbeStep::Read)
        ++m_results.reads;
    Q_EMIT failed(m_results.reads, describe(step) + QStringLiteral(": ") + failure.detail);
    if (m_results.reads >= m_count)
        finish();
    else
        m_pause.start(m_settings.intervalMs);
}

void LinkProbe::goOn()
{
    const bool isOpen = m_socket.state() == QAbstractSocket::ConnectedState;
    // The driver finds out by replies that do not come, and then wants to connect anew.
    for (int i = 0; !isOpen && i <= m_desk->comInfo.retry_limit + 1; ++i) {
        const Protocol* pending = m_desk->pending();
        if (pending == nullptr || isConnectionRequest(pending->frame))
            break;
        m_desk->reply(QByteArray());
    }
    if (isOpen)
        sendNext();
    else
        connectAfresh();
}

void LinkProbe::finish()
{
    m_timeout.stop();
    m_pause.stop();
    {
        const QSignalBlocker quiet(m_socket);
        m_socket.abort();
    }
    if (m_settings.trace != nullptr && m_traceId >= 0)
        m_settings.trace->closeConnection(m_traceId, FrameTrace::ToController);
    m_traceId = -1;
    Q_EMIT finished();
}

} // namespace s7200::panel
