#ifndef PANEL_LINK_PROBE_H
#define PANEL_LINK_PROBE_H

#include "host/name_lookup.h"
#include "host/reply_collector.h"
#include "host/reply_judgement.h"
#include "panel/driver_desk.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTcpSocket>
#include <QTimer>

#include <array>

namespace s7200::panel
{

/// The steps from a controller's name to its first value.
enum class ProbeStep { LookUp, Connect, TpduConnection, Setup, Read };

/// "name look-up", "TCP connection", "TPDU connection", "setup communication", "read".
QString describe(ProbeStep step);

struct ProbeResults {
    QVector<qint64> roundTripsUs; ///< Of good reads, in order.
    int reads = 0;                ///< Begun, the good ones included.
    std::array<int, CauseCount> failures = {};
    int grantedPdu = 0;
    int connections = 0;
    double connectMs = 0;               ///< Of the first TCP connection, name look-up included.
    bool gaveUp = false;                ///< The handshake was never completed.
    Failure failure;                    ///< The last one.
    ProbeStep step = ProbeStep::LookUp; ///< At which that was.

    QAbstractSocket::SocketError socketError = QAbstractSocket::UnknownSocketError; ///< Its own.

    /// The round trip that the given share (0 to 1) of all do not exceed; 0 without any.
    qint64 percentile(double share) const;
};

/// What usually causes that a step fails as the last one did, and what to look at; one line, or
/// empty.
QString usualCause(const ProbeResults& results, const ControllerSettings& settings);

/// Connects to a controller, shakes hands and reads its status word (SMW0) a number of times, with
/// a driver of its own, step by step, so that it can say which step failed. Lives in its thread's
/// event loop.
class LinkProbe : public QObject
{
    Q_OBJECT
public:
    /// `driver` is set up for the same settings.
    LinkProbe(const ControllerSettings& settings, std::unique_ptr<DriverDesk> driver, int count,
              QObject* parent = nullptr);
    ~LinkProbe() override;

    /// Ends with finished(): after `count` reads, good or not, or when the first handshake fails.
    void start();

    const ProbeResults& results() const;

Q_SIGNALS:
    /// Once, when reads can begin: after the handshake, in remote access after the TCP connection.
    void connected();
    /// The read of that number, from 1, was answered.
    void answered(int number, qint64 roundTripUs);
    /// It was not, or there was no connection to send it on.
    void failed(int number, const QString& what);
    void finished();

private:
    void connectAfresh();
    void resolved(const QList<QHostAddress>& addresses);
    void tryNext();
    void tcpConnected();
    void sendNext();
    void receive();
    void disconnected();
    void timeUp();
    void replied(const QByteArray& reply, const Failure& failure);
    void readAnswered(qint64 roundTripUs);
    void fail(ProbeStep step, const Failure& failure,
              QAbstractSocket::SocketError socketError = QAbstractSocket::UnknownSocketError);
    void goOn();
    void finish();

    const ControllerSettings m_settings;
    const std::unique_ptr<DriverDesk> m_desk;
    const int m_count;
    NameLookup m_lookup; ///< Qt's own would hold up the end of the program.
    bool m_lookingUp = false;
    QList<QHostAddress> m_addresses; ///< Still to be tried.
    QTcpSocket m_socket;
    ReplyCollector m_collector;
    QTimer m_timeout;
    QTimer m_pause;
    QElapsedTimer m_clock;
    SentFrame m_sent;
    bool m_awaiting = false;
    bool m_fresh = false;  ///< Nothing was sent on this connection yet.
    bool m_shaken = false; ///< A handshake was completed at least once.
    int m_traceId = -1;
    ProbeResults m_results;
};

} // namespace s7200::panel

#endif
