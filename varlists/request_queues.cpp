#include "varlists/Func_Initi.h"

#include "core/checked_int.h"
#include "core/guard.h"
#include "core/register_properties.h"
#include "core/siemens_s7_200.h"
#include "varlists/byte_ranges.h"

#include <QMutexLocker>

#include <algorithm>

using namespace cp243;

namespace
{

constexpr int QueueLimit = 1024;

bool samePlace(const RW_VAR& a, const RW_VAR& b)
{
    return a.station == b.station && a.reg_type == b.reg_type && a.address == b.address &&
           a.count == b.count;
}

bool isListed(const RW_VAR& var)
{
    const QList<RW_VAR>& list = PLC_driver.once_read_list;
    return std::any_of(list.begin(), list.end(), [&](const RW_VAR& entry) {
        return entry.host_key == var.host_key && entry.host_index == var.host_index &&
               samePlace(entry, var);
    });
}

/// How a one-shot read is cut: where it starts, how much it covers, how far the pieces are apart.
struct OneShotRange {
    qint64 start;
    qint64 count;
    int stepFactor; ///< 2 where pieces lie twice their length apart.
};

/// Folds the type of a one-shot read and gives its range.
OneShotRange normalise(RW_VAR& var, int address)
{
    const RegisterTypeInfo* type = registerTypeInfo(var.reg_type);
    const qint64 elements = var.count;
    if (!type)
        return {var.address, elements, 2};
    switch (type->width) {
    case Width::Bit:
        setReg_type(&var);
        // The start stays in bit units, where the cyclic list goes over to bytes. Deliberate:
        // docs/oddities.md, Lists.
        return {address & ~7, bytesOfBits(address & 7, elements), 1};
    case Width::Byte: // VB counts double. Deliberate: docs/oddities.md, Lists.
    case Width::Word:
        return {address, 2 * elements, 1};
    case Width::DoubleWord:
        setReg_type(&var);
        return {address, bytesOfDoubleWords(elements), 1};
    default:
        // Twice the step for timers, counters and analogue words. Deliberate: docs/oddities.md,
        // Lists.
        return {address, elements, 2};
    }
}

/// The first entry is never replaced: its frame may be on the wire.
int queueWrite(const RW_VAR& var, int mode)
{
    QList<RW_VAR>& list = PLC_driver.write_list;
    const int size = int(list.size());
    if (mode == List_Append || size < 2) {
        list.append(var);
        return size + 1;
    }
    for (int i = 1; i < size; ++i) {
        if (samePlace(list.at(i), var)) {
            list[i] = var;
            return size;
        }
    }
    if (size < QueueLimit)
        list.append(var);
    return int(list.size());
}

/// Cuts a one-shot read into pieces and queues those that are not queued yet; `var` is left holding
/// the last piece.
int queuePieces(RW_VAR& var, int address)
{
    Q_ASSERT(PLC_driver.com_info);
    const COM_INFO& info = *PLC_driver.com_info;
    var.reserved1 = var.reserved2 = 0;
    if (info.per_variable_stations == 0)
        var.station = info.default_station;
    const qint64 limit = info.block_length_limit;
    const OneShotRange range = normalise(var, address);
    var.count = clampToInt(range.count); // also without a piece: docs/oddities.md, Lists
    const Pieces pieces = cutIntoPieces(range.count, limit);
    const auto beginOf = [&](qint64 i) { return range.start + range.stepFactor * i * limit; };
    const auto setPiece = [&](qint64 i) {
        var.address = clampToInt(beginOf(i));
        var.count = clampToInt(pieces.sizeOf(i));
    };

    QMutexLocker lock(&PLC_driver.list_mutex);
    QList<RW_VAR>& list = PLC_driver.once_read_list;
    const int before = int(list.size());
    const bool queued = guarded(false, [&] {
        for (qint64 i = 0; i < pieces.number && fitsInt(beginOf(i)); ++i) {
            setPiece(i);
            if (isListed(var))
                continue;
            if (int(list.size()) >= QueueLimit)
                break; // nothing further can enter
            list.append(var);
        }
        return true;
    });
    if (pieces.number > 0)
        setPiece(pieces.number - 1);
    // Half a read would be reported as the whole.
    while (!queued && list.size() > before)
        list.removeLast();
    return queued ? int(list.size()) : 0;
}

} // namespace

int AddListWriteVar(RW_VAR* var, int mode)
{
    if (!var)
        return 0;
    QMutexLocker lock(&PLC_driver.list_mutex);
    return guarded(0, [&] { return queueWrite(*var, mode); });
}

int AddListOnceReadVar(RW_VAR* var, int mode)
{
    if (!var)
        return 0;
    return guarded(0, [&] {
        if (mode == List_Append) {
            QMutexLocker lock(&PLC_driver.list_mutex);
            PLC_driver.once_read_list.append(*var);
            return int(PLC_driver.once_read_list.size());
        }
        const int address = StringAddressToInt(var->reg_type, var->address_text);
        return address < 0 ? 0 : queuePieces(*var, address);
    });
}
