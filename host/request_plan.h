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
/// exceeds the PDU that the controller has granted: see RequestLimits.
///
/// The driver's own cutting is never relied upon. It measures pieces of 2 or 8 times the limit,
/// steps twice the piece for timers, counters, analogue words and for every variable while each
/// has its own station, and keeps bit addresses of one-shot reads in bits. So everything is cut
/// here, into whole words, pieces that the driver leaves as they are.

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

/// The blocks to read for a variable, in order: each of at most `limit` bytes, timers or counters,
/// but of one element at least. No double word is cut in two, since its halves would be of two
/// moments.
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
/// each when the one before has been acknowledged. They write nothing beside the variable. `limit`:
/// most words, timers or counters of one, a double word at least.
QList<WriteStep> writeSteps(const Variable& variable, const QVector<quint32>& values, int limit);

/// The bits of the timers or counters of register type T or C whose entries a reply's payload
/// holds: one byte each, 0 or 1. Empty for every other type. The driver's image sets such a bit and
/// never clears it, so whoever wants to know whether it is set now has to look at the reply.
QByteArray statusBits(int type, const QByteArray& payload);

} // namespace s7200

#endif
