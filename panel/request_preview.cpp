#include "panel/request_preview.h"

#include "host/request_plan.h"
#include "panel/driver_desk.h"
#include "panel/frame_text.h"

#include "wire/s7_fields.h"

#include <algorithm>

namespace s7200::panel
{

namespace
{

constexpr int HandshakeFrames = 2;

/// A peer that forwards brings two bytes for each of a byte area, as many again as are wanted.
constexpr int SentTwice = 2;

/// Which bytes, timers or counters of a read somebody wants, and who.
void serve(const ReadBlock& block, const QVector<ReadBlock>& wanted, PlannedRead* read)
{
    QVector<bool> used(block.units, false);
    for (int i = 0; i < int(wanted.size()); ++i) {
        const ReadBlock& one = wanted.at(i);
        if (!block.overlaps(one))
            continue;
        read->variables.append(i);
        const int first = std::max(one.start, block.start) - block.start;
        const int end = std::min(one.start + one.units, block.start + block.units) - block.start;
        std::fill(used.begin() + first, used.begin() + end, true);
    }
    int unitBytes = read->dataBytes / std::max(1, block.units);
    if (unitBytes == SentTwice)
        unitBytes = 1;
    const int served = int(std::count(used.begin(), used.end(), true));
    read->wastedBytes = read->dataBytes - served * unitBytes;
}

/// Answers what the driver asks for until there are so many reads in the plan.
void answerReads(DriverDesk& desk, const QVector<ReadBlock>& wanted, int reads, int mostFrames,
                 RequestPlan* plan)
{
    for (int i = 0; i < mostFrames && int(plan->reads.size()) < reads; ++i) {
        const Protocol* pending = desk.pending();
        if (pending == nullptr)
            return;
        if (!isConnectionRequest(pending->frame) && !isSetup(pending->frame)) {
            PlannedRead read;
            read.frame = pending->frame;
            read.text = describeRead(pending->var);
            read.replyLength = pending->reply_len;
            read.pduLength = wire::PayloadOffset - wire::ProtocolIdOffset + pending->data_len;
            read.dataBytes = pending->data_len;
            serve(blockOf(pending->var), wanted, &read);
            plan->reads.append(read);
        }
        desk.reply(desk.perfectReply(*pending));
    }
}

} // namespace

int RequestPlan::misfits() const
{
    return int(std::count_if(reads.begin(), reads.end(), [this](const PlannedRead& read) {
        return read.pduLength > grantedPdu;
    }));
}

int RequestPlan::dataBytes() const
{
    int sum = 0;
    for (const PlannedRead& read : reads)
        sum += read.dataBytes;
    return sum;
}

int RequestPlan::wastedBytes() const
{
    int sum = 0;
    for (const PlannedRead& read : reads)
        sum += read.wastedBytes;
    return sum;
}

double RequestPlan::cycleMs(double roundTripMs) const
{
    return double(reads.size()) * roundTripMs;
}

std::optional<RequestPlan> planRequests(const ControllerSettings& settings,
                                        const QVector<Variable>& variables, int grantedPdu,
                                        QString* error)
{
    const std::unique_ptr<DriverDesk> desk = DriverDesk::open(settings, error);
    if (!desk)
        return std::nullopt;
    desk->setPdu(grantedPdu);
    RequestPlan plan;
    plan.grantedPdu = grantedPdu;
    QVector<ReadBlock> wanted;
    for (const Variable& variable : variables)
        wanted.append(extentOf(variable, variable.station >= 0 && !settings.stations.isEmpty()
                                             ? variable.station
                                             : settings.defaultStation));
    // Each station shakes hands first.
    const int handshakes = HandshakeFrames * std::max(1, int(settings.stations.size()));
    int expected = desk->watch(variables);
    answerReads(*desk, wanted, expected, expected + handshakes, &plan);
    const int apart = desk->readApart();
    expected += apart;
    answerReads(*desk, wanted, expected, apart + handshakes, &plan);
    if (int(plan.reads.size()) == expected)
        return plan;
    *error = QStringLiteral("the driver sends only %1 of its %2 requests")
                 .arg(plan.reads.size())
                 .arg(expected);
    return std::nullopt;
}

} // namespace s7200::panel
