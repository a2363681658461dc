#ifndef HOST_LINK_MACHINE_H
#define HOST_LINK_MACHINE_H

#include "host/driver_copy.h"
#include "host/link_health.h"
#include "host/reply_collector.h"
#include "host/request_queue.h"
#include "host/watch_list.h"

#include <s7200host/controller.h>

#include <deque>
#include <map>
#include <optional>

namespace s7200
{

/// What a LinkMachine orders and tells. None of these may call the machine back before it returns,
/// except those that tell, which come when an event has been dealt with.
class LinkOrders
{
public:
    virtual ~LinkOrders() = default;

    /// Open a TCP connection to a station's controller; answered by opened() or openFailed().
    virtual void open(int station) = 0;
    /// Close it, or give up opening it, without an answer.
    virtual void close(int station) = 0;
    /// True while open() still awaits a name server.
    virtual bool isLookingUp(int station) const
    {
        Q_UNUSED(station);
        return false;
    }
    /// Drop what has come in, then send.
    virtual void send(int station, const QByteArray& frame) = 0;
    /// timePassed() is due at that time; replaces what was said before.
    virtual void wakeAt(Micros time) = 0;

    virtual void tellLink(const LinkStatus& status) = 0;
    virtual void tellValues(const QVector<int>& indexes) = 0;
    virtual void tellCycle() = 0;
    /// The controller has granted another PDU than the last time, or than the usual one.
    virtual void tellPdu(int station, int bytes)
    {
        Q_UNUSED(station);
        Q_UNUSED(bytes);
    }
};

/// The state machine between one driver and its connections: decides when to connect, what to send
/// next, and what has become of everything that was asked for. Plain code: events in, orders out;
/// it knows no socket, no thread and no clock. Every event carries the time by both clocks.
class LinkMachine
{
public:
    /// `driver` and `orders` must outlive it. `seed`: of the jitter between attempts, and of the
    /// phase in which cycles begin.
    LinkMachine(DriverCopy& driver, const ControllerSettings& settings, LinkOrders& orders,
                quint32 seed);
    ~LinkMachine();

    // Events.
    void start(const Moment& now);
    void stop(); ///< Ends all requests as Cause::Stopped before it returns; the last event.
    void opened(int station, const Moment& now);
    void openFailed(int station, const QString& why, const Moment& now);
    void received(int station, const QByteArray& bytes, const Moment& now);
    void closed(int station, const Moment& now);
    void timePassed(const Moment& now);
    void watch(const QVector<Variable>& variables, const Moment& now);
    void request(RequestPtr request, const Moment& now);

    // What is known. Ages count back from `now`.
    Value value(int index, Micros now) const;
    LinkStatus link(int station, Micros now) const;
    const QVector<Variable>& watched() const
    {
        return m_watch.variables();
    }
    /// A variable's own with several stations, else the default.
    int stationOf(const Variable& variable) const;
    const LinkStatistics& statistics() const
    {
        return m_statistics;
    }

private:
    // Tags of one-shot reads and of writes; 1 to 11 also show in the driver's failure codes.
    static constexpr int ReadKey = 1;
    static constexpr int WriteKey = 2;
    static constexpr int ApartKey = 3; ///< A watched variable apart, in cycle `host_index`.

    enum class Phase { Waiting, Connecting, Handshake, Ready };
    struct Station {
        Phase phase = Phase::Waiting;
        LinkHealth health;
        Failure failure;                   ///< Of the last transaction.
        Micros deadline = 0;               ///< Connecting: until when.
        bool isOpen = false;               ///< The TCP connection.
        bool wasAsked = false;             ///< A frame was sent on it.
        int pdu = RequestLimits::UsualPdu; ///< As granted last.
        bool isUp = false;                 ///< As told.
        bool wasUp = false;                ///< Ever.
        bool hurries = false;  ///< Waits after a refusal: requests need not be given up.
        bool answered = false; ///< A request, since the last cycle.
        int received = 0;      ///< Bytes since the last frame was sent.
        bool probeRefused = false;
        Micros upSince = 0;
        Micros nextTrial = 0; ///< Of a variable that is set aside, at the earliest.
        std::optional<LinkState> toldState;
        Cause toldCause = Cause::None;
    };
    /// A frame that was sent and awaits its reply.
    struct Transaction {
        bool isOpen = false;
        SentFrame frame;
        RW_VAR request;
        int dataOffset = 0;      ///< Of the payload in a good reply.
        Micros sentAt = 0;       ///< The last time.
        Moment firstSentAt;      ///< A reply may be one to the first sending: all look alike.
        bool isRepeated = false; ///< It was sent before.
    };

    // The wheel.
    void happensAt(const Moment& now);
    void settle(bool tell);
    void tellNews();
    void advance();
    void checkDeadlines();
    void expireValues();
    void connectDue();
    void relist();
    void beginCycleIfDue();
    void readApart();
    bool isIdle(int number) const;
    /// SMW0, the controller's own status: read where nothing else is, to keep up a link.
    static ReadBlock probeOf(int station);
    void cycleProgress();
    bool hasWork() const;
    bool anyReady() const;
    Micros nextWake() const;
    void tellChanges();

    // Requests.
    void feedDriver();
    void startRead(Request& request);
    void continueWrite(Request& request);
    int queueRead(const ReadBlock& block, int key, int tag);
    void finish(RequestPtr request, const Failure& failure);
    void finishActive(const Failure& failure);
    bool isActive(const RW_VAR& request) const;
    void dropActive(const RW_VAR& culprit, const Failure& failure, bool keepReads);
    void failWaiting(int station, const Failure& failure);
    QByteArray fetch(const Variable& variable, int station) const;

    // Transactions.
    void transact(const Protocol& pending);
    void replied(const QByteArray& reply, const Failure& failure);
    void handshakeAnswered(int station, const Transaction& transaction, const QByteArray& reply,
                           bool good);
    void requestAnswered(const Transaction& transaction, const QByteArray& reply);
    void readAnswered(const Transaction& transaction, const QByteArray& reply, Micros lifetime);
    void partRead(Request& request, const WatchList::Sample& sample);
    void writeAnswered(const RW_VAR& request, const Failure& refusal);
    void countFailure(Cause cause);

    // Links.
    Micros valueLifetime(Micros trips = 0) const;
    RequestLimits limits() const;
    void granted(int station, int pdu);
    void assign(const QVector<Variable>& variables);
    static bool isConnected(const Station& station);
    static bool isReady(const Station& station);
    bool isProbed(const Station& station) const;
    bool isGivenUp(const Station& station) const;
    bool asksNothing(int station) const;
    void ready(int station);
    void up(int station);
    void disconnected(int station, const Failure& failure);
    void hangUp(int station);
    void attemptFailed(int station, const Failure& failure);
    void linkLost(const RW_VAR& request);
    void closeStation(int station, const Failure& failure, bool news);
    LinkState stateOf(const Station& station) const;
    LinkState pauseOf(const Station& station) const;
    void tellLink(int station);

    DriverCopy& m_driver;
    const ControllerSettings m_settings;
    LinkOrders& m_orders;
    COM_INFO m_comInfo;
    struct LocalWords;
    std::unique_ptr<LocalWords> m_localWords;

    Micros m_now = 0;
    qint64 m_wallMs = 0;
    bool m_stopped = false;
    std::map<int, Station> m_stations;
    WatchList m_watch;
    RequestQueue m_requests;
    ReplyCollector m_collector;
    Transaction m_transaction;
    int m_refusals = 0;       ///< In a row, of the same frame.
    bool m_repeating = false; ///< The driver holds a frame that failed and goes out again.

    bool m_relist = true;   ///< The driver's cyclic list is no longer the right one.
    int m_listed = 0;       ///< Requests in the driver's cyclic list.
    bool m_inCycle = false; ///< Between a cycle's begin and its end.
    int m_cycleTag = 0;
    int m_cyclicLeft = 0; ///< Of m_listed, not yet read in this cycle.
    int m_apartLeft = 0;  ///< The same of the variables that are read apart.
    Micros m_cycleBegan = -1;
    Micros m_nextCycle = 0;
    bool m_apartQueued = false; ///< In this cycle: they come last.
    Micros m_phase;             ///< Of the grid on which cycles begin.
    Micros m_cycleTrips = 0;    ///< All round trips of this cycle,
    Micros m_lastTrips = 0;     ///< and of the last one.
    Micros m_nextExpiry = 0;

    LinkStatistics m_statistics;
    /// To be told when the event has been dealt with.
    struct News {
        int list; ///< Of the watched variables that it is about; 0: of none.
        std::function<void()> tell;
        QVector<int> changes = {}; ///< Of values in that list.
    };
    std::deque<News> m_news;
    int m_list = 1; ///< Counts the lists of watched variables.
};

} // namespace s7200

#endif
