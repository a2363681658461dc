#include "host/link_machine.h"

#include <sys/mman.h>

#include <algorithm>
#include <limits>
#include <utility>

namespace s7200
{

namespace
{

constexpr Micros PerMs = 1000;
constexpr Micros Never = std::numeric_limits<Micros>::max();
/// Null in a row while there are requests; one is the driver's idle call in five.
constexpr int MostIdleCalls = 3;
/// Cycles of many controllers begin at different moments, on the grid on which long waits end.
constexpr Micros PhaseStep = 20 * PerMs;
/// From one frame to the next. A reply has 240 bytes; who sends this much is read for nothing.
constexpr int MostReceivedBytes = 256 * 1024;

} // namespace

/// What FlashLocalRegister wants: LocalWordCount words, of which the last two are the TSAPs. The
/// rest is never touched, so it is mapped and takes no memory.
struct LinkMachine::LocalWords {
    static constexpr std::size_t Count = LocalWordCount;
    static constexpr std::size_t CalledTsap = LocalWord_CalledTsap;
    static constexpr std::size_t CallingTsap = LocalWord_CallingTsap;

    LocalWords()
    {
        void* const pages = mmap(nullptr, Count * sizeof(quint16), PROT_READ | PROT_WRITE,
                                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        words = pages == MAP_FAILED ? nullptr : static_cast<quint16*>(pages);
    }
    ~LocalWords()
    {
        if (words)
            munmap(words, Count * sizeof(quint16));
    }
    Q_DISABLE_COPY(LocalWords)

    quint16* words; ///< Null when out of memory: then the driver uses its defaults.
};

LinkMachine::LinkMachine(DriverCopy& driver, const ControllerSettings& settings, LinkOrders& orders,
                         quint32 seed)
    : m_driver(driver), m_settings(settings), m_orders(orders), m_comInfo(comInfoFor(settings)),
      m_localWords(new LocalWords), m_collector(settings.remoteAccess)
{
    QList<int> numbers = settings.stations.keys();
    if (numbers.isEmpty())
        numbers.append(settings.defaultStation);
    for (int number : std::as_const(numbers))
        m_stations[number].health = LinkHealth(seed + quint32(number));
    if (m_localWords->words && settings.localTsap != 0 && settings.remoteTsap != 0) {
        m_localWords->words[LocalWords::CalledTsap] = settings.remoteTsap;
        m_localWords->words[LocalWords::CallingTsap] = settings.localTsap;
    }
    const Micros steps = std::max<Micros>(1, settings.intervalMs * PerMs / PhaseStep);
    m_phase = seed % steps * PhaseStep;
}

LinkMachine::~LinkMachine() = default;

int LinkMachine::stationOf(const Variable& variable) const
{
    const bool ownStation = m_comInfo.per_variable_stations != 0 && variable.station >= 0;
    return ownStation ? variable.station : m_settings.defaultStation;
}

// Events

void LinkMachine::start(const Moment& now)
{
    happensAt(now);
    m_nextCycle = m_now;
    m_driver.SetComInfo(&m_comInfo);
    m_driver.RegistCallBackFuncIntf(nullptr, 0); // what DataCom returns says as much
    m_driver.FlashLocalRegister(nullptr, m_localWords->words, nullptr);
    settle(false);
}

void LinkMachine::stop()
{
    m_stopped = true;
    const Failure failure{Cause::Stopped, QStringLiteral("stopped")};
    finishActive(failure);
    for (auto& entry : m_stations) {
        m_orders.close(entry.first);
        failWaiting(entry.first, failure);
        m_watch.linkDown(entry.first, failure);
        tellLink(entry.first);
    }
    tellChanges();
    for (const News& news : std::exchange(m_news, {})) {
        if (news.list == 0 || news.list == m_list)
            news.tell();
    }
}

void LinkMachine::opened(int number, const Moment& now)
{
    happensAt(now);
    Station& station = m_stations.at(number);
    if (station.phase == Phase::Connecting) {
        ++m_statistics.connections;
        station.phase = Phase::Handshake;
        station.isOpen = true;
        station.wasAsked = false;
        station.received = 0;
        m_relist = true;
        tellLink(number);
    }
    settle(true);
}

void LinkMachine::openFailed(int number, const QString& why, const Moment& now)
{
    happensAt(now);
    if (m_stations.at(number).phase == Phase::Connecting) {
        countFailure(Cause::NoConnection);
        attemptFailed(number, {Cause::NoConnection, why});
    }
    settle(true);
}

void LinkMachine::received(int number, const QByteArray& bytes, const Moment& now)
{
    happensAt(now);
    Station& station = m_stations.at(number);
    station.received += int(bytes.size());
    if (station.isOpen && station.received > MostReceivedBytes) {
        m_orders.close(number);
        disconnected(number, {Cause::NotS7, QStringLiteral("more than %1 KB that nothing asked for")
                                                .arg(MostReceivedBytes / 1024)});
    } else if (m_transaction.isOpen && m_transaction.request.station == number) {
        m_collector.append(bytes);
        if (const auto reply = m_collector.takeReply()) {
            if (isDisconnect(*reply) && !isConnectionRequest(m_transaction.frame))
                hangUp(number);
            replied(*reply, Failure());
        } else if (m_collector.isHopeless()) {
            replied(m_collector.whatCameInstead(), Failure());
        }
    } else if (station.isOpen && isDisconnect(bytes)) {
        m_orders.close(number);
        disconnected(number, judgeDisconnect(bytes));
    } else if (station.isOpen && !station.wasAsked) {
        // Whoever speaks first is no controller, whether or not it waits for the first frame.
        countFailure(Cause::NotS7);
        attemptFailed(number, judgeUnasked(bytes));
    }
    settle(true);
}

void LinkMachine::closed(int number, const Moment& now)
{
    happensAt(now);
    if (m_stations.at(number).isOpen)
        disconnected(
            number, {Cause::Closed, QStringLiteral("the connection was closed by the controller")});
    settle(true);
}

void LinkMachine::timePassed(const Moment& now)
{
    happensAt(now);
    settle(true);
}

void LinkMachine::watch(const QVector<Variable>& variables, const Moment& now)
{
    happensAt(now);
    for (News& news : m_news) { // of an index that will be another's
        if (news.list == m_list)
            m_watch.addChanges(news.changes);
    }
    ++m_list;
    assign(variables);
    const QVector<int> kept = m_watch.takeChanges();
    for (const auto& entry : m_stations) {
        if (entry.second.isUp)
            m_watch.linkUp(entry.first);
        else if (entry.second.health.attempts() > 0)
            m_watch.linkDown(entry.first, entry.second.health.failure());
    }
    m_watch.takeChanges(); // the caller knows what is new
    m_watch.addChanges(kept);
    settle(false);
}

void LinkMachine::assign(const QVector<Variable>& variables)
{
    QVector<int> stations;
    for (const Variable& variable : variables)
        stations.append(stationOf(variable));
    m_watch.assign(variables, stations, limits());
    m_relist = true;
    m_inCycle = false; // what is on its way still belongs to the old list
}

void LinkMachine::request(RequestPtr request, const Moment& now)
{
    happensAt(now);
    const auto found = m_stations.find(request->station);
    if (found == m_stations.end())
        finish(std::move(request), {Cause::Invalid, QStringLiteral("no such station")});
    else if (isGivenUp(found->second))
        finish(std::move(request), found->second.health.failure());
    else
        m_requests.add(std::move(request));
    settle(false);
}

// The wheel

/// Time never falls, although an event may have been looked at later than another one.
void LinkMachine::happensAt(const Moment& now)
{
    m_now = std::max(m_now, now.steady);
    m_wallMs = now.wallMs;
}

/// Goes on as far as possible. `tell`: tells what is new, too; without it that is left for the next
/// timePassed(), so that a completion that asks for more never runs into the next completion.
void LinkMachine::settle(bool tell)
{
    if (m_stopped)
        return;
    advance();
    tellChanges();
    if (tell && !m_news.empty()) {
        m_orders.wakeAt(nextWake()); // whoever is told may run an event loop
        tellNews();
    }
    if (!m_stopped)
        m_orders.wakeAt(m_news.empty() ? nextWake() : m_now);
}

/// Only what there is now; and whoever is told may stop the machine, which then tells the rest, or
/// let further events happen, which tell it as well.
void LinkMachine::tellNews()
{
    for (std::size_t left = m_news.size(); left > 0 && !m_news.empty() && !m_stopped; --left) {
        const News news = std::move(m_news.front());
        m_news.pop_front();
        if (news.list == 0 || news.list == m_list)
            news.tell();
    }
}

void LinkMachine::advance()
{
    int idleCalls = 0;
    for (;;) {
        checkDeadlines();
        connectDue();
        if (m_transaction.isOpen)
            return;
        // Not while a frame is being repeated: should it fail for good, the driver judges whose
        // queues to drop by the first record of the list that the frame came from.
        if (!m_repeating) {
            if (m_relist)
                relist();
            beginCycleIfDue();
            feedDriver();
            if (!hasWork())
                return;
        }
        if (const Protocol* pending = m_driver.ComCommunication()) {
            idleCalls = 0;
            transact(*pending);
        } else if (++idleCalls == MostIdleCalls) {
            m_inCycle = false;
            finishActive({Cause::Invalid, QStringLiteral("the driver makes no request of it")});
            return;
        }
    }
}

void LinkMachine::checkDeadlines()
{
    const Micros timeout = m_settings.timeoutMs * PerMs;
    if (m_transaction.isOpen && m_now >= m_transaction.sentAt + timeout) {
        const QByteArray instead = m_collector.whatCameInstead();
        Failure failure;
        if (instead.isEmpty())
            failure = {Cause::TimedOut,
                       QStringLiteral("no reply within %1 ms").arg(m_settings.timeoutMs)};
        replied(instead, failure);
    }
    for (auto& entry : m_stations) {
        if (entry.second.phase != Phase::Connecting || m_now < entry.second.deadline)
            continue;
        countFailure(Cause::NoConnection);
        const QString what = m_orders.isLookingUp(entry.first)
                                 ? QStringLiteral("name look-up failed: nothing within %1 ms")
                                 : QStringLiteral("no connection within %1 ms");
        attemptFailed(entry.first, {Cause::NoConnection, what.arg(m_settings.timeoutMs)});
    }
    if (m_now >= m_nextExpiry)
        expireValues();
}

void LinkMachine::connectDue()
{
    for (auto& entry : m_stations) {
        Station& station = entry.second;
        if (station.phase != Phase::Waiting || m_now < station.health.nextAttempt())
            continue;
        station.phase = Phase::Connecting;
        station.deadline = m_now + m_settings.timeoutMs * PerMs;
        m_orders.open(entry.first);
        tellLink(entry.first);
    }
}

/// True while the driver has something to send, or must find out that a connection is gone.
bool LinkMachine::hasWork() const
{
    if (m_requests.active() || m_inCycle)
        return true;
    return std::any_of(m_stations.begin(), m_stations.end(), [](const auto& entry) {
        return isConnected(entry.second) && !isReady(entry.second);
    });
}

bool LinkMachine::anyReady() const
{
    return std::any_of(m_stations.begin(), m_stations.end(),
                       [](const auto& entry) { return isReady(entry.second); });
}

Micros LinkMachine::nextWake() const
{
    const bool waitsForCycle = anyReady() && !m_inCycle && !m_transaction.isOpen;
    Micros next = waitsForCycle ? m_nextCycle : Never;
    if (m_transaction.isOpen)
        next = std::min(next, m_transaction.sentAt + m_settings.timeoutMs * PerMs);
    for (const auto& entry : m_stations) {
        if (entry.second.phase == Phase::Connecting)
            next = std::min(next, entry.second.deadline);
        else if (entry.second.phase == Phase::Waiting)
            next = std::min(next, entry.second.health.nextAttempt());
    }
    return std::min(next, m_nextExpiry);
}

void LinkMachine::tellChanges()
{
    const QVector<int> changes = m_watch.takeChanges();
    if (!changes.isEmpty())
        m_news.push_back({m_list, [this, changes] { m_orders.tellValues(changes); }, changes});
}

} // namespace s7200
