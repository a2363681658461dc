#ifndef HOST_COMM_LOOP_H
#define HOST_COMM_LOOP_H

#include "host/driver_library.h"
#include "host/panel_link.h"
#include "host/request_plan.h"

#include <QMap>
#include <QVector>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace s7200
{

/// Why something could not be done.
enum class Fault { None, NoConnection, NoAnswer, Refused, Invalid, Stopped };

struct LoopSettings {
    QMap<int, Endpoint> controllers; ///< By station; with one station its key is defaultStation.
    bool stationEach = false;        ///< Variables carry their own stations.
    bool remote = false;             ///< Remote access: forwarding records in place of S7 jobs.
    int defaultStation = 2;          ///< Of variables without a station.
    int timeoutMs = 1000;            ///< For a connection and for each reply.
    int retries = 3;                 ///< Failed replies before the driver declares the link down.
    int intervalMs = 500;            ///< From the start of one cycle to that of the next.
    int pauseMs = 200;               ///< Between attempts to connect.
    int parkMs = 2000;               ///< Between attempts while other stations are served.
    int blockLimit = SmallestBlockLimit; ///< blockLimitFor() all that is ever watched.
    wire::FrameTrace* trace = nullptr;   ///< Not owned; may be null.
};

struct RequestResult {
    Fault fault = Fault::None;
    QString detail;  ///< What happened, for people.
    QByteArray data; ///< A read's value in host encoding.
};

struct LoopEvent {
    enum Kind {
        LinkUp,    ///< The station's handshake, or on a remote link its first reply, was good.
        LinkLost,  ///< The link was up and the driver has declared it down.
        LinkDown,  ///< Attempts to get it up have failed past the retry limit. Going on.
        CycleDone, ///< All watched variables of the stations that answer were read.
    };
    Kind kind = CycleDone;
    int station = 0;
    Fault fault = Fault::None;
    QString detail;
    bool cyclic = false; ///< LinkLost by the cyclic read of `block`.
    ReadBlock block;
};

/// Counted since start().
struct LoopStatus {
    quint64 cycles = 0;
    quint64 requests = 0; ///< Frames, handshakes and repeats included.
    quint64 retries = 0;  ///< Failed replies after which the driver tried again.
    quint64 linkLosses = 0;
    quint64 refusals = 0;
    int stationsUp = 0;
    int stations = 0;
};

/// The communication loop of a host: one thread that alternates the driver's two calls and owns
/// the connections. All other calls of the driver's list functions are made on that thread too;
/// values may be read from any thread.
///
/// Any thread may call the functions below, start() and stop() from one at a time. The listener
/// and the completions are called on the loop's thread, without any lock held; they may call the
/// loop's functions, stop() excepted. There is one driver in a process, so one loop may run.
class CommLoop
{
public:
    using Listener = std::function<void(const LoopEvent&)>;
    using Done = std::function<void(const RequestResult&)>;

    CommLoop(const DriverLibrary& library, const LoopSettings& settings);
    ~CommLoop(); ///< Stops.

    /// Before start().
    void setListener(const Listener& listener);

    void start();

    /// Returns when the thread has ended. Requests that are open then, and later ones, end as
    /// Fault::Stopped; a later one on the caller's thread.
    void stop();

    /// Replaces the variables that are read cyclically. A station without any has its first
    /// special memory word read instead, to see that it is there.
    void watch(const QVector<Variable>& variables);

    /// Reads a variable once. A request waits while its station's link is being brought up, and
    /// fails at once while it is down.
    void read(const Variable& variable, const Done& done);

    /// Writes a variable, one value an element; done when the controller has acknowledged all of
    /// it or refused a part. As for reads otherwise. Writes are carried out in the order given.
    void write(const Variable& variable, const QVector<quint32>& values, const Done& done);

    /// True if the watched variable of that index was read since its link came up, and not
    /// written since.
    bool isFresh(int index) const;

    /// What the driver's image holds for a variable, fresh or not, in host encoding.
    QByteArray value(const Variable& variable) const;

    LoopStatus status() const;
    int stationOf(const Variable& variable) const;

private:
    enum class State { Connecting, Up, Down };
    struct Verdict {
        Fault fault = Fault::None;
        QString detail;
    };
    struct Station {
        std::unique_ptr<PanelLink> link;
        State state = State::Connecting;
        bool restarted = false; ///< Has failed before it was up, see failedBeforeUp().
        bool parked = false;    ///< Left out of the cyclic list until `parkedUntil`.
        QDeadlineTimer parkedUntil;
        Verdict verdict; ///< Of the last failure.
    };
    struct Request {
        int id = 0;
        Variable variable;
        QVector<quint32> values; ///< Empty: a read.
        Done done;
        QVector<WriteStep> steps; ///< Not yet given to the driver.
        int unanswered = 0;       ///< Write requests given to the driver.
        Verdict refusal;
    };
    using RequestPtr = std::unique_ptr<Request>;
    struct Watched {
        Variable variable;
        QVector<ReadBlock> blocks;
        QVector<bool> fresh; ///< By block.
    };
    struct Wanted {
        bool changed = false;
        QVector<Variable> watched;
        std::deque<RequestPtr> requests;
    };

    // On the loop's thread.
    void run(Waiter& waiter);
    void turn();
    void adoptWanted();
    void reviveStations();
    QDeadlineTimer nextRevival() const;
    void relist();
    void feedDriver();
    void startRead();
    void continueWrite();
    RequestPtr takeReady(bool write);
    bool rest();
    void pause();
    void transact(const Protocol& pending);
    void handshakeAnswered(int station, const QByteArray& frame, int result);
    void requestAnswered(const RW_VAR& request);
    void requestFailed(const RW_VAR& request, int result);
    void linkUp(int station);
    void linkLost(const RW_VAR& request);
    void failedBeforeUp(int station);
    void linkDown(int station);
    void cyclicReadDone(const ReadBlock& block);
    void writeAnswered(const RW_VAR& request);
    void finishReads();
    void failActive(int station, const RW_VAR& culprit);
    void failWaiting(int station);
    void finish(RequestPtr request, const Verdict& verdict);
    void markFresh(const ReadBlock& block);
    void markStale(const ReadBlock& block);
    void markStationStale(int station);
    void tell(LoopEvent::Kind kind, int station, const Verdict& verdict);
    void count(quint64 LoopStatus::*counter);
    void countStations();
    Verdict judge(const PanelLink::Exchange& exchange) const;
    bool isHandshake(const QByteArray& frame) const;
    void submit(RequestPtr request);
    void wake();

    const DriverLibrary& driver;
    const LoopSettings settings;
    Listener listener;
    COM_INFO comInfo = {};
    QVector<unsigned short> localWords;
    std::thread thread;
    std::atomic<bool> stopping{false};

    // The loop thread's own.
    Waiter* waiter = nullptr;
    std::map<int, Station> stations;
    std::deque<RequestPtr> waiting;
    RequestPtr activeRead;
    RequestPtr activeWrite;
    int listedRequests = 0; ///< Size of the driver's cyclic list.
    int cyclicDone = 0;     ///< Of them, read in this cycle.
    bool repeating = false; ///< The driver holds a frame that failed and goes out again.
    QDeadlineTimer nextCycle;

    mutable std::mutex mutex; ///< Guards what follows. Never held while the driver is called.
    Wanted wanted;
    QVector<Watched> watched;
    LoopStatus statistics;
    Waiter* wakeable = nullptr;
    bool ended = false; ///< Requests are no longer taken.
};

} // namespace s7200

#endif
