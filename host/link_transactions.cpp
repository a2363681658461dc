// The half of LinkMachine that talks to the driver: requests in, frames out, replies in.

#include "host/link_machine.h"

#include "wire/s7_fields.h"

#include <algorithm>
#include <utility>

namespace s7200
{

namespace
{

bool isWrite(const RW_VAR& request)
{
    return request.origin != 0;
}

Failure dropped(const Failure& failure)
{
    return {Cause::Dropped, QStringLiteral("dropped with the link: ") + failure.detail};
}

} // namespace

// Requests

/// Hands over one request at a time: what is in the driver's queues would be carried out whenever
/// the link comes back.
void LinkMachine::feedDriver()
{
    Request* const request =
        m_requests.activate([this](int station) { return isReady(m_stations.at(station)); });
    if (!request || request->unanswered > 0)
        return;
    if (!std::exchange(request->isBegun, true) && request->isWrite())
        request->steps = writeSteps(request->variable, request->values,
                                    limits().write(request->variable.area->type));
    if (request->isWrite())
        continueWrite(*request);
    else
        startRead(*request);
}

void LinkMachine::startRead(Request& request)
{
    int queued = 0;
    const int most = limits().read(request.variable.area->reads);
    for (const ReadBlock& block : readBlocks(request.variable, request.station, most)) {
        queued = queueRead(block, ReadKey, request.id);
        ++request.unanswered;
    }
    if (queued == 0)
        finishActive({Cause::Invalid, QStringLiteral("the driver cannot read it")});
}

int LinkMachine::queueRead(const ReadBlock& block, int key, int tag)
{
    RW_VAR record = oneShotRecord(block);
    record.host_key = key;
    record.host_index = tag;
    record.remote = m_comInfo.remote_access;
    record.link_id = m_comInfo.link_id; // any other and the reply is not stored
    m_comInfo.block_length_limit = std::max(limits().single(), block.units); // never cut
    return m_driver.AddListOnceReadVar(&record, List_Merge);
}

/// The next step, or the end.
void LinkMachine::continueWrite(Request& request)
{
    if (request.steps.isEmpty()) {
        finishActive(Failure());
        return;
    }
    WriteStep step = request.steps.takeFirst();
    request.unanswered = step.requests;
    // The driver puts the value into its image when it makes the frame, or at once while its last
    // reply was a bad one.
    m_watch.blockWritten(extentOf(request.variable, request.station));
    m_comInfo.block_length_limit = std::max(limits().single(), step.count);
    const int queued = m_driver.SetRegisterData(QLatin1String(request.variable.area->name),
                                                step.type, step.address, request.station,
                                                &step.data, step.count, WriteKey, request.id);
    if (queued == 0)
        finishActive({Cause::Invalid, QStringLiteral("the driver cannot write it")});
}

void LinkMachine::finish(RequestPtr request, const Failure& failure)
{
    if (!request->done)
        return;
    Result result;
    result.cause = failure.cause;
    result.detail = failure.detail;
    result.wasSent = request->isWrite() && request->isSent;
    if (!failure && !request->isWrite()) {
        const Variable& variable = request->variable;
        result.value.elements = decodeValues(
            variable, variable.hasStatusBits() ? request->bits : fetch(variable, request->station));
        const Micros age = m_now - request->readAt.steady;
        const Micros lifetime = valueLifetime(request->trips);
        result.value.timeMs = request->readAt.wallMs;
        result.value.ageMs = age / 1000;
        result.value.quality = request->isLate || age >= lifetime ? Quality::Stale : Quality::Good;
    }
    const Controller::Done done = request->done;
    m_news.push_back({0, [done, result] { done(result); }});
}

void LinkMachine::finishActive(const Failure& failure)
{
    if (m_requests.active())
        finish(m_requests.takeActive(), failure);
}

/// True for a request to the controller by which the active one is carried out.
bool LinkMachine::isActive(const RW_VAR& request) const
{
    const Request* const active = m_requests.active();
    return active && request.host_index == active->id &&
           request.host_key == (active->isWrite() ? WriteKey : ReadKey);
}

/// What the driver held is gone with the link. The culprit is told what happened to it; with
/// `keepReads` a read that was not to blame waits for the next link.
void LinkMachine::dropActive(const RW_VAR& culprit, const Failure& failure, bool keepReads)
{
    const Request* const active = m_requests.active();
    if (!active || active->station != culprit.station)
        return;
    if (isActive(culprit))
        finishActive(failure);
    else if (keepReads && !active->isWrite())
        m_requests.putBack();
    else
        finishActive(dropped(failure));
}

void LinkMachine::failWaiting(int station, const Failure& failure)
{
    for (RequestPtr& request : m_requests.takeWaiting(station))
        finish(std::move(request), failure);
}

QByteArray LinkMachine::fetch(const Variable& variable, int station) const
{
    QByteArray data;
    m_driver.GetRegisterData(QString(), variable.area->type, variable.driverAddress(), station,
                             data, variable.driverCount());
    return data;
}

// Transactions

void LinkMachine::transact(const Protocol& pending)
{
    // DataCom removes the record.
    m_transaction.frame = {pending.frame, pending.reply_len, m_settings.remoteAccess};
    m_transaction.request = pending.var;
    m_transaction.dataOffset = pending.data_offset;
    m_transaction.sentAt = m_now;
    m_transaction.isRepeated = m_repeating;
    if (!m_repeating)
        m_transaction.firstSentAt = {m_now, m_wallMs};
    // From now on the image shows the written value, whatever becomes of the frame.
    if (isWrite(pending.var))
        m_watch.blockWritten(writtenBlock(pending.var));
    Station& station = m_stations.at(pending.var.station);
    if (!station.isOpen) {
        replied(QByteArray(), station.failure);
        return;
    }
    m_transaction.isOpen = station.wasAsked = true;
    ++m_statistics.requests;
    m_statistics.retries += m_repeating ? 1 : 0;
    if (isActive(pending.var))
        m_requests.active()->isSent = true;
    m_collector.begin(m_transaction.frame.bytes);
    station.received = 0;
    m_orders.send(pending.var.station, m_transaction.frame.bytes);
}

/// Gives the driver what came for the frame that it handed out. `failure`: why nothing else came;
/// none for a reply, which is judged.
void LinkMachine::replied(const QByteArray& reply, const Failure& failure)
{
    const bool wasSent = std::exchange(m_transaction.isOpen, false);
    const Transaction transaction = m_transaction;
    const int number = transaction.request.station;
    Station& station = m_stations.at(number);
    station.failure = failure ? failure : judgeReply(transaction.frame, reply);
    // Nothing received is an empty array and not a null pointer: the driver judges a reply to its
    // handshake by its bytes alone.
    QByteArray bytes = reply;
    const int result = m_driver.DataCom(&bytes, int(bytes.size()))->result;
    const bool good = result == Result_Good || result == Result_RemoteStored;
    if (!good && !station.failure)
        station.failure = judgeBadReply(transaction.frame, reply);
    if (wasSent && station.failure)
        countFailure(station.failure.cause);
    if (good && !transaction.isRepeated)
        m_statistics.roundTrip.add(m_now - transaction.sentAt);
    m_refusals = !good && station.failure.cause == Cause::Refused ? m_refusals + 1 : 0;
    const bool handshake = isHandshake(transaction.frame);
    m_repeating = result == Result_WillRetry && !handshake;
    if (handshake)
        handshakeAnswered(number, transaction, reply, good);
    else if (good)
        requestAnswered(transaction, reply);
    else if (!m_repeating)
        linkLost(transaction.request);
    // Forwarded records carry no reference: an answer that comes after all would pass for that to
    // the next one. So the driver gets nothing more from here until it gives the link up.
    if (m_repeating && m_settings.remoteAccess && station.failure.cause != Cause::Refused)
        hangUp(number);
}

void LinkMachine::handshakeAnswered(int number, const Transaction& transaction,
                                    const QByteArray& reply, bool good)
{
    if (!good) {
        attemptFailed(number, m_stations.at(number).failure);
    } else if (!isConnectionRequest(transaction.frame)) {
        granted(number, wire::wordAt(reply, wire::AckPduLengthOffset));
    }
}

void LinkMachine::granted(int number, int pdu)
{
    Station& station = m_stations.at(number);
    m_statistics.grantedPdu = pdu;
    if (pdu < RequestLimits::SmallestPdu) {
        // The driver believes in the link and has to find out, by a request of its own.
        m_orders.close(number);
        station.phase = Phase::Ready;
        disconnected(number, {Cause::SetupRefused,
                              QStringLiteral("a PDU of %1 bytes is granted; to read anything "
                                             "takes %2")
                                  .arg(pdu)
                                  .arg(RequestLimits::SmallestPdu)});
        return;
    }
    const int usable = std::min(pdu, RequestLimits::UsualPdu);
    if (std::exchange(station.pdu, usable) != usable) {
        assign(QVector<Variable>(m_watch.variables()));
        m_news.push_back({0, [this, number, pdu] { m_orders.tellPdu(number, pdu); }, {}});
    }
    ready(number);
}

/// The smallest PDU counts: the driver has one limit for all stations.
RequestLimits LinkMachine::limits() const
{
    int pdu = RequestLimits::UsualPdu;
    for (const auto& entry : m_stations)
        pdu = std::min(pdu, entry.second.pdu);
    return RequestLimits(m_settings.blockLimit, m_settings.remoteAccess, pdu);
}

void LinkMachine::requestAnswered(const Transaction& transaction, const QByteArray& reply)
{
    const int number = transaction.request.station;
    Station& station = m_stations.at(number);
    if (station.phase == Phase::Handshake)
        ready(number); // of a remote link, which has no handshake
    up(number);
    station.answered = true;
    if (isActive(transaction.request))
        station.health.goodCycle(); // where nothing is watched it may be long to the next cycle
    // What a frame took that was repeated makes others live longer, but not what it brought: that
    // may be an answer to the first sending.
    const Micros shortest = valueLifetime();
    m_cycleTrips += m_now - transaction.firstSentAt.steady;
    if (isWrite(transaction.request))
        writeAnswered(transaction.request, station.failure);
    else
        readAnswered(transaction, reply, transaction.isRepeated ? shortest : valueLifetime());
}

void LinkMachine::readAnswered(const Transaction& transaction, const QByteArray& reply,
                               Micros lifetime)
{
    const RW_VAR& request = transaction.request;
    WatchList::Sample sample;
    sample.block = blockOf(request);
    sample.bits = statusBits(request.reg_type, reply.mid(transaction.dataOffset));
    sample.time = transaction.firstSentAt;
    sample.lifetime = valueLifetime();
    sample.isLate = m_now - sample.time.steady >= lifetime;
    m_watch.blockRead(sample, m_now, [this](const Variable& variable, int station) {
        return fetch(variable, station);
    });
    m_nextExpiry = std::min(m_nextExpiry, sample.time.steady + sample.lifetime);
    if (request.host_key == ReadKey) {
        if (isActive(request))
            partRead(*m_requests.active(), sample);
        return;
    }
    if (!m_inCycle)
        return;
    if (request.host_key == ApartKey)
        m_apartLeft -= request.host_index == m_cycleTag ? 1 : 0;
    else if (m_cyclicLeft > 0)
        --m_cyclicLeft;
    cycleProgress();
}

void LinkMachine::partRead(Request& request, const WatchList::Sample& sample)
{
    request.bits += sample.bits; // its parts come in order
    if (request.readAt.steady < 0 || sample.time.steady < request.readAt.steady)
        request.readAt = sample.time;
    request.isLate = request.isLate || sample.isLate;
    request.trips += m_now - sample.time.steady;
    if (--request.unanswered == 0)
        finishActive(Failure());
}

/// The driver takes a write that was refused for a good one.
void LinkMachine::writeAnswered(const RW_VAR& request, const Failure& refusal)
{
    Request* const active = m_requests.active();
    if (!isActive(request))
        return;
    if (refusal.cause != Cause::Refused)
        active->hasWritten = true;
    else if (!active->refusal)
        active->refusal = refusal;
    if (active->refusal)
        active->steps.clear();
    // Of a refused step the driver still carries out what it holds.
    if (--active->unanswered > 0 || !active->steps.isEmpty())
        return;
    Failure failure = active->refusal;
    if (failure && active->hasWritten)
        failure.detail += QStringLiteral(", but a part of it was written");
    finishActive(failure);
}

void LinkMachine::countFailure(Cause cause)
{
    ++m_statistics.failures[std::size_t(cause)];
}

} // namespace s7200
