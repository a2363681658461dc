#include "host/comm_loop.h"

#include "host/waiter.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace s7200
{

namespace
{

// Tags of our requests; 1 to 11 also show in the driver's failure codes.
constexpr int ReadKey = 1;
constexpr int WriteKey = 2;

constexpr int WriteToController = 2; // COM_INFO::communication_mode
constexpr int HostHandle = 1;
constexpr int LinkId = 1;
constexpr int LocalWords = 55002;

// What DataCom's record says.
constexpr int WillRetry = 0;
constexpr int Good = 1;
constexpr int GoodRemote = 100;
constexpr int HandshakeFailed = 201;

constexpr int TpduType = 5;
constexpr int JobFunction = 17;
constexpr uchar ConnectionRequest = 0xE0;
constexpr uchar SetupCommunication = 0xF0;

/// SMW0, the controller's own status: read where nothing else is, to keep up a link.
constexpr int ProbeType = 10;
constexpr int ProbeBytes = 2;

/// Unique in the process, so that what an earlier loop left in the driver is not taken for ours.
std::atomic<int> lastRequestId{0};

/// One-shot reads that the driver has reported, for the loop that runs on this thread.
thread_local std::vector<std::pair<int, bool>> finishedReads;

/// Runs inside DataCom under the driver's list mutex: takes a note, nothing more.
int onReadFinished(int, int key, int index, int outcome)
{
    if (key == ReadKey)
        finishedReads.emplace_back(index, outcome == 1);
    return 0;
}

bool isWrite(const RW_VAR& request)
{
    return request.origin != 0;
}

bool isOneShot(const RW_VAR& request)
{
    return !isWrite(request) && request.host_key == ReadKey;
}

} // namespace

CommLoop::CommLoop(const DriverLibrary& library, const LoopSettings& loopSettings)
    : driver(library), settings(loopSettings), localWords(LocalWords, 0)
{
    comInfo.block_length_limit = settings.blockLimit;
    comInfo.default_station = settings.defaultStation;
    comInfo.retry_limit = settings.retries;
    comInfo.per_variable_stations = settings.stationEach ? 1 : 0;
    comInfo.remote_access = settings.remote ? 1 : 0;
    // The same in all requests: a reply to one with another link's identifier is not stored.
    comInfo.link_id = LinkId;
    comInfo.communication_mode = WriteToController;
    comInfo.host_handle = HostHandle;
}

CommLoop::~CommLoop()
{
    stop();
}

void CommLoop::setListener(const Listener& newListener)
{
    listener = newListener;
}

void CommLoop::start()
{
    stopping = false;
    ended = false;
    repeating = false;
    statistics.stations = int(settings.controllers.size());
    driver.SetComInfo(&comInfo);
    driver.RegistCallBackFuncIntf(onReadFinished, 0);
    // Words 55000 and 55001 are the TSAPs; as 0 the driver fills in its defaults.
    driver.FlashLocalRegister(nullptr, localWords.data(), nullptr);
    thread = std::thread([this] {
        Waiter loopWaiter;
        run(loopWaiter);
    });
}

void CommLoop::stop()
{
    if (!thread.joinable())
        return;
    stopping = true;
    wake();
    thread.join();
}

void CommLoop::watch(const QVector<Variable>& variables)
{
    {
        const std::lock_guard<std::mutex> lock(mutex);
        wanted.changed = true;
        wanted.watched = variables;
    }
    wake();
}

void CommLoop::read(const Variable& variable, const Done& done)
{
    RequestPtr request(new Request);
    request->variable = variable;
    request->done = done;
    submit(std::move(request));
}

void CommLoop::write(const Variable& variable, const QVector<quint32>& values, const Done& done)
{
    RequestPtr request(new Request);
    request->variable = variable;
    request->values = values;
    request->done = done;
    request->steps = writeSteps(variable, values, settings.blockLimit);
    submit(std::move(request));
}

void CommLoop::submit(RequestPtr request)
{
    request->id = ++lastRequestId;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (!ended)
            wanted.requests.push_back(std::move(request));
    }
    if (request)
        finish(std::move(request), {Fault::Stopped, QStringLiteral("stopped")});
    wake();
}

bool CommLoop::isFresh(int index) const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return !wanted.changed && index >= 0 && index < int(watched.size()) &&
           !watched.at(index).fresh.contains(false);
}

QByteArray CommLoop::value(const Variable& variable) const
{
    QByteArray data;
    driver.GetRegisterData(QLatin1String(variable.area->name), variable.area->type,
                           variable.driverAddress(), stationOf(variable), data,
                           variable.driverCount());
    return data;
}

LoopStatus CommLoop::status() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return statistics;
}

int CommLoop::stationOf(const Variable& variable) const
{
    return settings.stationEach && variable.station >= 0 ? variable.station
                                                         : settings.defaultStation;
}

void CommLoop::wake()
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (wakeable)
        wakeable->wake();
}

// The loop's thread

void CommLoop::run(Waiter& loopWaiter)
{
    waiter = &loopWaiter;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        wakeable = waiter;
    }
    for (auto it = settings.controllers.begin(); it != settings.controllers.end(); ++it) {
        LinkSettings link;
        link.controller = it.value();
        link.remote = settings.remote;
        link.timeoutMs = settings.timeoutMs;
        link.trace = settings.trace;
        stations[it.key()].link.reset(new PanelLink(link, loopWaiter, stopping));
    }
    relist();
    while (!stopping)
        turn();
    {
        const std::lock_guard<std::mutex> lock(mutex);
        wakeable = nullptr;
        ended = true;
    }
    adoptWanted();
    for (auto& entry : stations) {
        entry.second.verdict = {Fault::Stopped, QStringLiteral("stopped")};
        failActive(entry.first, RW_VAR());
        failWaiting(entry.first);
        markStationStale(entry.first);
    }
    stations.clear();
}

void CommLoop::turn()
{
    // Not while a frame is being repeated: should it fail for good, the driver judges whose queues
    // to drop by the first record of the list that the frame came from.
    if (!repeating) {
        adoptWanted();
        reviveStations();
        feedDriver();
        if (rest())
            return;
    }
    if (const Protocol* pending = driver.ComCommunication()) {
        transact(*pending);
        return;
    }
    // Nothing to send. While requests are open this is the driver's one idle call in five, and
    // the next call goes on with them.
    if (!activeRead && !activeWrite)
        waiter->wait(nextRevival());
}

void CommLoop::adoptWanted()
{
    Wanted adopted;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        std::swap(adopted.changed, wanted.changed);
        std::swap(adopted.requests, wanted.requests);
        if (adopted.changed) {
            watched.clear();
            for (const Variable& variable : std::as_const(wanted.watched)) {
                Watched entry;
                entry.variable = variable;
                entry.blocks = readBlocks(variable, stationOf(variable), settings.blockLimit);
                entry.fresh.fill(false, int(entry.blocks.size()));
                watched.append(entry);
            }
        }
    }
    if (adopted.changed && !stopping)
        relist();
    for (RequestPtr& request : adopted.requests) {
        if (settings.controllers.contains(stationOf(request->variable)))
            waiting.push_back(std::move(request));
        else
            finish(std::move(request), {Fault::NoConnection, QStringLiteral("no such station")});
    }
    for (const auto& entry : stations) {
        if (entry.second.state == State::Down)
            failWaiting(entry.first);
    }
}

/// A failed handshake does not move the driver on to the next request of its cyclic list. So while
/// stations have controllers each, one that is down leaves the list and is tried now and then.
void CommLoop::reviveStations()
{
    bool changed = false;
    for (auto& entry : stations) {
        Station& station = entry.second;
        if (station.parked && station.parkedUntil.hasExpired()) {
            station.parked = false;
            changed = true;
        }
    }
    if (changed)
        relist();
}

QDeadlineTimer CommLoop::nextRevival() const
{
    QDeadlineTimer next(QDeadlineTimer::Forever);
    for (const auto& entry : stations) {
        if (entry.second.parked && entry.second.parkedUntil < next)
            next = entry.second.parkedUntil;
    }
    return next;
}

void CommLoop::relist()
{
    QVector<ReadBlock> blocks;
    for (const auto& entry : stations) {
        if (entry.second.parked || !entry.second.link)
            continue;
        const auto before = blocks.size();
        for (const Watched& variable : std::as_const(watched)) {
            if (stationOf(variable.variable) == entry.first)
                blocks += variable.blocks;
        }
        if (blocks.size() == before) {
            ReadBlock probe;
            probe.type = ProbeType;
            probe.station = entry.first;
            probe.units = ProbeBytes;
            blocks.append(probe);
        }
    }
    listedRequests = driver.ReCreatReadVarList(cyclicRecords(blocks, settings.stationEach));
    cyclicDone = 0;
    nextCycle = QDeadlineTimer::current();
}

/// Hands over one read and one write at a time. What is in the driver's queues would be carried
/// out whenever the link comes back, so a request goes there only while its station is connected.
void CommLoop::feedDriver()
{
    if (!activeRead) {
        activeRead = takeReady(false);
        if (activeRead)
            startRead();
    }
    if (!activeWrite)
        activeWrite = takeReady(true);
    if (activeWrite && activeWrite->unanswered == 0)
        continueWrite();
}

CommLoop::RequestPtr CommLoop::takeReady(bool write)
{
    const auto isReady = [&](const RequestPtr& request) {
        return request->values.isEmpty() != write &&
               stations[stationOf(request->variable)].state == State::Up;
    };
    const auto ready = std::find_if(waiting.begin(), waiting.end(), isReady);
    if (ready == waiting.end())
        return nullptr;
    RequestPtr request = std::move(*ready);
    waiting.erase(ready);
    return request;
}

/// The pieces share their tags, so the driver reports them once, when the last one is in.
void CommLoop::startRead()
{
    const Variable& variable = activeRead->variable;
    for (const ReadBlock& block : readBlocks(variable, stationOf(variable), settings.blockLimit)) {
        RW_VAR record = oneShotRecord(block);
        record.host_key = ReadKey;
        record.host_index = activeRead->id;
        record.remote = comInfo.remote_access;
        record.link_id = comInfo.link_id; // any other and the reply is not stored
        driver.AddListOnceReadVar(&record, 0);
    }
}

void CommLoop::continueWrite()
{
    if (activeWrite->steps.isEmpty() || activeWrite->refusal.fault != Fault::None) {
        const Verdict verdict = activeWrite->refusal;
        finish(std::move(activeWrite), verdict);
        return;
    }
    WriteStep step = activeWrite->steps.takeFirst();
    activeWrite->unanswered = step.requests;
    // While a reply is missing the driver puts the value into its image at once.
    markStale(extentOf(activeWrite->variable, stationOf(activeWrite->variable)));
    driver.SetRegisterData(QLatin1String(activeWrite->variable.area->name), step.type, step.address,
                           stationOf(activeWrite->variable), &step.data, step.count, WriteKey,
                           activeWrite->id);
}

/// Between two cycles there is nothing to do but requests. True after some sleep.
bool CommLoop::rest()
{
    if (activeRead || activeWrite || cyclicDone > 0 || nextCycle.hasExpired())
        return false;
    waiter->wait(nextCycle);
    return true;
}

/// Before connecting again; only stop() shortens it.
void CommLoop::pause()
{
    const QDeadlineTimer deadline(settings.pauseMs);
    while (!stopping && !deadline.hasExpired())
        waiter->wait(deadline);
}

void CommLoop::transact(const Protocol& pending)
{
    // DataCom removes the record.
    const QByteArray frame = pending.frame;
    const RW_VAR request = pending.var;
    Station& station = stations[request.station];
    // The image shows a value from the moment its write is framed, whatever becomes of it.
    if (isWrite(request))
        markStale(writtenBlock(request));
    PanelLink::Exchange exchange;
    if (station.link) // it has none if the frame was left pending by an earlier loop
        exchange = station.link->exchange(frame);
    if (stopping)
        return;
    count(&LoopStatus::requests);
    station.verdict = judge(exchange);
    // Nothing received is an empty array and not a null pointer: a handshake is judged by its
    // bytes alone.
    const int result = driver.DataCom(&exchange.reply, int(exchange.reply.size()))->result;
    repeating = result == WillRetry && !isHandshake(frame);
    if (result == WillRetry)
        count(&LoopStatus::retries);
    if (isHandshake(frame))
        handshakeAnswered(request.station, frame, result);
    else if (result == Good || result == GoodRemote)
        requestAnswered(request);
    else
        requestFailed(request, result);
}

bool CommLoop::isHandshake(const QByteArray& frame) const
{
    return !settings.remote && frame.size() > JobFunction &&
           (uchar(frame.at(TpduType)) == ConnectionRequest ||
            uchar(frame.at(JobFunction)) == SetupCommunication);
}

/// What is to be said should the driver not be content.
CommLoop::Verdict CommLoop::judge(const PanelLink::Exchange& exchange) const
{
    switch (exchange.answer) {
    case PanelLink::Answer::NoConnection:
        return {Fault::NoConnection, exchange.detail};
    case PanelLink::Answer::Closed:
        return {Fault::NoConnection, QStringLiteral("the connection was closed")};
    case PanelLink::Answer::None:
        return {Fault::NoAnswer, QStringLiteral("no answer within %1 ms").arg(settings.timeoutMs)};
    case PanelLink::Answer::Reply:
        break;
    }
    const QString refusal = refusalOf(exchange.reply);
    if (!refusal.isEmpty())
        return {Fault::Refused, refusal};
    return {Fault::Invalid, QStringLiteral("invalid reply")};
}

void CommLoop::handshakeAnswered(int number, const QByteArray& frame, int result)
{
    if (result == Good) {
        if (uchar(frame.at(TpduType)) != ConnectionRequest)
            linkUp(number);
        return;
    }
    if (result == HandshakeFailed || stations[number].state == State::Down)
        linkDown(number);
    // With a station each the others are served meanwhile.
    if (!settings.stationEach)
        pause();
}

void CommLoop::requestAnswered(const RW_VAR& request)
{
    if (stations[request.station].state != State::Up)
        linkUp(request.station);
    if (isWrite(request))
        writeAnswered(request);
    else if (isOneShot(request))
        finishReads();
    else
        cyclicReadDone(blockOf(request));
}

void CommLoop::requestFailed(const RW_VAR& request, int result)
{
    Station& station = stations[request.station];
    if (result != WillRetry) {
        linkLost(request);
    } else if (settings.remote && !settings.stationEach && station.state != State::Up &&
               station.verdict.fault == Fault::NoConnection) {
        pause();
    }
}

void CommLoop::linkUp(int number)
{
    stations[number].state = State::Up;
    countStations();
    tell(LoopEvent::LinkUp, number, Verdict());
}

/// The driver has given up a request, and with it all that was queued for the station.
void CommLoop::linkLost(const RW_VAR& request)
{
    Station& station = stations[request.station];
    const bool wasUp = station.state == State::Up;
    if (station.link)
        station.link->linkDeclaredDown();
    markStationStale(request.station);
    finishedReads.clear();
    cyclicDone = 0;
    nextCycle = QDeadlineTimer::current();
    failActive(request.station, request);
    if (!wasUp) {
        failedBeforeUp(request.station);
        return;
    }
    station.state = State::Connecting;
    count(&LoopStatus::linkLosses);
    countStations();
    LoopEvent event;
    event.kind = LoopEvent::LinkLost;
    event.station = request.station;
    event.fault = station.verdict.fault;
    event.detail = station.verdict.detail;
    event.cyclic = !isWrite(request) && !isOneShot(request);
    event.block = blockOf(request);
    if (listener)
        listener(event);
    // It will be refused again unless the listener changes the list; no need to hurry.
    if (event.cyclic && event.fault == Fault::Refused && !settings.stationEach)
        pause();
}

/// A request without a handshake before it: on a remote link that is how attempts fail. Else the
/// driver is still connected from an earlier loop of this process and now knows better; and on a
/// remote link its references still count from then, once.
void CommLoop::failedBeforeUp(int number)
{
    Station& station = stations[number];
    const bool leftOver = station.verdict.fault == Fault::Invalid && !station.restarted;
    station.restarted = true;
    if (settings.remote && !leftOver)
        linkDown(number);
}

void CommLoop::linkDown(int number)
{
    Station& station = stations[number];
    const bool news = station.state != State::Down;
    station.state = State::Down;
    failWaiting(number);
    if (settings.stationEach) {
        station.parked = true;
        station.parkedUntil = QDeadlineTimer(settings.parkMs);
        relist();
    }
    if (news)
        tell(LoopEvent::LinkDown, number, station.verdict);
}

void CommLoop::cyclicReadDone(const ReadBlock& block)
{
    markFresh(block);
    if (++cyclicDone < listedRequests)
        return;
    cyclicDone = 0;
    nextCycle += settings.intervalMs;
    if (nextCycle.hasExpired())
        nextCycle = QDeadlineTimer::current();
    count(&LoopStatus::cycles);
    tell(LoopEvent::CycleDone, block.station, Verdict());
}

void CommLoop::writeAnswered(const RW_VAR& request)
{
    const Verdict& verdict = stations[request.station].verdict;
    if (verdict.fault == Fault::Refused)
        count(&LoopStatus::refusals);
    if (!activeWrite || activeWrite->id != request.host_index)
        return;
    --activeWrite->unanswered;
    if (verdict.fault == Fault::Refused)
        activeWrite->refusal = verdict;
    if (activeWrite->unanswered == 0)
        continueWrite();
}

void CommLoop::finishReads()
{
    for (const auto& finished : std::exchange(finishedReads, {})) {
        if (activeRead && activeRead->id == finished.first && finished.second)
            finish(std::move(activeRead), Verdict());
    }
}

/// What the driver held for a station is gone. The culprit is told what happened to it, the
/// others that they were dropped with it.
void CommLoop::failActive(int number, const RW_VAR& culprit)
{
    const Verdict& verdict = stations[number].verdict;
    Verdict dropped = verdict;
    if (verdict.fault == Fault::Refused || verdict.fault == Fault::Invalid)
        dropped.fault = Fault::NoAnswer;
    dropped.detail = QStringLiteral("dropped, the link went down: ") + verdict.detail;
    for (RequestPtr* active : {&activeRead, &activeWrite}) {
        if (!*active || stationOf((*active)->variable) != number)
            continue;
        const bool guilty =
            culprit.host_index == (*active)->id && (isOneShot(culprit) || isWrite(culprit));
        const bool stopped = verdict.fault == Fault::Stopped;
        finish(std::move(*active), guilty || stopped ? verdict : dropped);
    }
}

void CommLoop::failWaiting(int number)
{
    std::deque<RequestPtr> kept;
    for (RequestPtr& request : std::exchange(waiting, {})) {
        if (stationOf(request->variable) == number)
            finish(std::move(request), stations[number].verdict);
        else
            kept.push_back(std::move(request));
    }
    waiting = std::move(kept);
}

void CommLoop::finish(RequestPtr request, const Verdict& verdict)
{
    RequestResult result;
    result.fault = verdict.fault;
    result.detail = verdict.detail;
    if (verdict.fault == Fault::None && request->values.isEmpty())
        result.data = value(request->variable);
    if (request->done)
        request->done(result);
}

void CommLoop::markFresh(const ReadBlock& block)
{
    const std::lock_guard<std::mutex> lock(mutex);
    for (Watched& variable : watched) {
        for (int i = 0; i < int(variable.blocks.size()); ++i) {
            if (block.covers(variable.blocks.at(i)))
                variable.fresh[i] = true;
        }
    }
}

void CommLoop::markStale(const ReadBlock& block)
{
    const std::lock_guard<std::mutex> lock(mutex);
    for (Watched& variable : watched) {
        for (int i = 0; i < int(variable.blocks.size()); ++i) {
            if (block.overlaps(variable.blocks.at(i)))
                variable.fresh[i] = false;
        }
    }
}

void CommLoop::markStationStale(int station)
{
    const std::lock_guard<std::mutex> lock(mutex);
    for (Watched& variable : watched) {
        if (stationOf(variable.variable) == station)
            variable.fresh.fill(false);
    }
}

void CommLoop::tell(LoopEvent::Kind kind, int station, const Verdict& verdict)
{
    LoopEvent event;
    event.kind = kind;
    event.station = station;
    event.fault = verdict.fault;
    event.detail = verdict.detail;
    if (listener)
        listener(event);
}

void CommLoop::count(quint64 LoopStatus::*counter)
{
    const std::lock_guard<std::mutex> lock(mutex);
    ++(statistics.*counter);
}

void CommLoop::countStations()
{
    const auto up = std::count_if(stations.begin(), stations.end(), [](const auto& entry) {
        return entry.second.state == State::Up;
    });
    const std::lock_guard<std::mutex> lock(mutex);
    statistics.stationsUp = int(up);
}

} // namespace s7200
