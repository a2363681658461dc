#ifndef HOST_REQUEST_PLAN_H
#define HOST_REQUEST_PLAN_H

#include <s7200host/variable.h>
#include <siemens_s7_200_cp243/host_interface.h>

#include <QByteArray>
#include <QList>
#include <QVector>

namespace s7200
{

/// Turns variables into what the driver's list and value functions are given, so that no request
/// exceeds the PDU of 240 bytes that the module grants: at most 222 bytes of data in a read reply
/// (a timer takes 5 of them, a counter 3) and 212 in a write job.
///
/// The driver's own cutting is never relied upon. It measures pieces of 2 or 8 times the limit,
/// steps twice the piece for timers, counters, analogue words and for every variable while each
/// has its own station, and keeps bit addresses of one-shot reads in bits. So everything is cut
/// here, into whole words, pieces that the driver leaves as they are.

/// The block length limit for a panel that shows `variables`: 42 with timers, 70 with counters,
/// else 212. The driver merges neighbours up to the limit whatever their kind takes in a reply.
int blockLimitFor(const QVector<Variable>& variables);

/// The limit of single requests. `wanted`: what the user has set, 0 if nothing.
int requestLimitFor(int wanted);

/// The limit for the driver's cyclic list of `variables`, of which those outside their areas do not
/// count. `wanted`: as above.
int listLimitFor(const QVector<Variable>& variables, int wanted);

/// The limit that suits any variables.
constexpr int SmallestBlockLimit = 42;

/// One read that the driver makes a single request of.
struct ReadBlock {
    int type = 0; ///< Register type: a word type, timers or counters.
    int station = 0;
    int start = 0; ///< Byte address, or number of the first timer or counter.
    int units = 0; ///< Bytes, or timers or counters.

    bool operator==(const ReadBlock& other) const;
    /// True if a read of this block brings all of `other`.
    bool covers(const ReadBlock& other) const;
    bool overlaps(const ReadBlock& other) const;
};

/// The whole of a variable as one block, whatever its length.
ReadBlock extentOf(const Variable& variable, int station);

/// The blocks to read for a variable, in order: each of at most `limit` bytes, timers or counters
/// and fit for the PDU.
QVector<ReadBlock> readBlocks(const Variable& variable, int station, int limit);

/// What a request that the driver made covers, `count` in the unit of the driver's read lists.
ReadBlock blockOf(const RW_VAR& request);

/// What a write request covers in the controller, in the terms of ReadBlock.
ReadBlock writtenBlock(const RW_VAR& request);

/// Records for ReCreatReadVarList. The analogue inputs become one record a station, and so do the
/// outputs: the driver's merging counts bytes as words there and would read past their end.
QList<VAR_INFO> cyclicRecords(const QVector<ReadBlock>& blocks, bool stationEach);

/// A record for AddListOnceReadVar, without its tags.
RW_VAR oneShotRecord(const ReadBlock& block);

/// One call of SetRegisterData, and how many requests the driver makes of it.
struct WriteStep {
    int type = 0;
    QString address;
    int count = 0;
    QByteArray data; ///< Host encoding, least significant byte first.
    int requests = 0;
};

/// The calls that write `values` (as parseAssignment gives them), to be made one after the other,
/// each when the one before has been acknowledged. They write nothing beside the variable.
QList<WriteStep> writeSteps(const Variable& variable, const QVector<quint32>& values, int limit);

} // namespace s7200

#endif
