#include "varlists/Func_Initi.h"

#include "core/checked_int.h"
#include "core/guard.h"
#include "core/register_properties.h"
#include "core/shared_word.h"
#include "core/siemens_s7_200.h"
#include "varlists/byte_ranges.h"

#include <QMutexLocker>

#include <algorithm>
#include <unordered_set>

using namespace cp243;

namespace
{

/// Most bytes or elements that one listed variable covers. Only guards memory: an absurd count must
/// not fill it with pieces.
constexpr qint64 LargestRange = 1 << 20;

/// Cyclic requests made from a variable list carry no host tags.
constexpr int NoHostKey = 0;
constexpr int NoHostIndex = -1;

RW_VAR cyclicRequest(const VAR_INFO& variable, int address, int station)
{
    const COM_INFO& info = *PLC_driver.com_info;
    RW_VAR request;
    request.host_key = NoHostKey;
    request.host_index = NoHostIndex;
    request.remote = info.remote_access;
    request.link_id = info.link_id;
    request.name = variable.name;
    request.address_text = variable.address_text;
    request.reg_type = variable.reg_type;
    request.address = address;
    request.station = station;
    request.count = variable.count;
    return request;
}

void setRange(RW_VAR& request, qint64 total)
{
    request.count = int(qBound(-LargestRange, total, LargestRange));
}

/// Widens a bit, double-word or element request to its bytes; VB and SW differ between the two
/// methods and are widened by them. Analogue words stay words, although merging takes them for
/// bytes. Deliberate: docs/oddities.md, Lists.
void widen(RW_VAR& request, Width width)
{
    const int elements = request.count;
    switch (width) {
    case Width::Bit:
        setRange(request, bytesOfBits(request.address % 8, elements));
        request.address /= 8;
        setReg_type(&request);
        break;
    case Width::DoubleWord:
        setRange(request, bytesOfDoubleWords(elements));
        setReg_type(&request);
        break;
    case Width::Word:
        setRange(request, 2 * qint64(elements));
        break;
    default:
        setRange(request, elements);
        break;
    }
}

/// Largest piece of a cyclic request. The factors stand although the count is in bytes already.
/// Deliberate: docs/oddities.md, Lists.
qint64 pieceSize(Width width, qint64 limit)
{
    switch (width) {
    case Width::Bit:
        return 8 * limit;
    case Width::Word:
    case Width::DoubleWord:
        return 2 * limit;
    default:
        return limit;
    }
}

/// Appends one area's sorted requests to the cyclic list, joining neighbours while the joined block
/// stays within the limit; a gap between them is read along.
void mergeArea(QList<RW_VAR>& area, qint64 limit)
{
    qint64 start = 0;
    qint64 length = 0;
    bool open = false;
    for (RW_VAR& request : area) {
        const qint64 begin = request.address;
        const qint64 end = begin + request.count;
        if (open && start + length > begin && start + length >= end)
            continue;
        if (open && end - start <= limit) {
            length = end - start;
            PLC_driver.read_list.last().count = int(length);
            continue;
        }
        PLC_driver.read_list.append(request);
        start = begin;
        length = request.count;
        open = true;
    }
}

void listOneStation(const QList<VAR_INFO>& variables)
{
    const COM_INFO& info = *PLC_driver.com_info;
    const qint64 limit = info.block_length_limit;
    QList<RW_VAR> areas[AreaCount];
    for (const VAR_INFO& variable : variables) {
        const int address = StringAddressToInt(variable.reg_type, variable.address_text);
        const RegisterTypeInfo* type = registerTypeInfo(variable.reg_type);
        if (address < 0 || !type)
            continue;
        RW_VAR request = cyclicRequest(variable, address, info.default_station);
        widen(request, type->width);
        WhetherGroup(request.count, clampToInt(pieceSize(type->width, limit)), &request,
                     &areas[int(type->area)]);
    }
    for (QList<RW_VAR>& area : areas) {
        Bubble_Sort(&area);
        mergeArea(area, limit);
    }
}

/// What makes two requests of the several-stations method the same.
struct RequestIdentity {
    int station;
    int reg_type;
    int address;
    int count;
};

bool operator==(const RequestIdentity& a, const RequestIdentity& b)
{
    return a.station == b.station && a.reg_type == b.reg_type && a.address == b.address &&
           a.count == b.count;
}

struct RequestHash {
    size_t operator()(const RequestIdentity& id) const
    {
        constexpr quint64 Multiplier = 0x9E3779B97F4A7C15u;
        const quint64 place = (quint64(quint32(id.address)) << 32) | quint32(id.count);
        const quint64 owner = (quint64(quint32(id.station)) << 32) | quint32(id.reg_type);
        return size_t(((place ^ (owner * Multiplier)) * Multiplier) >> 32);
    }
};

/// The several-stations method has widths of its own: VB counts as a word, SW (and a code outside
/// the table) as its plain count. Deliberate: docs/oddities.md, Several stations.
void widenForStation(RW_VAR& request)
{
    const RegisterTypeInfo* type = registerTypeInfo(request.reg_type);
    if (request.reg_type == Type_VB) {
        setRange(request, 2 * qint64(request.count));
        setReg_type(&request);
    } else if (request.reg_type == Type_SW || !type) {
        setRange(request, request.count);
    } else {
        widen(request, type->width);
    }
}

void listSeveralStations(const QList<VAR_INFO>& variables)
{
    const qint64 limit = PLC_driver.com_info->block_length_limit;
    // Not a QSet, which ends the program when memory runs out (Qt 6).
    std::unordered_set<RequestIdentity, RequestHash> listed;
    for (const VAR_INFO& variable : variables) {
        const int address = StringAddressToInt(variable.reg_type, variable.address_text);
        if (address < 0)
            continue;
        RW_VAR request = cyclicRequest(variable, address, variable.station);
        widenForStation(request);
        const Pieces pieces = cutIntoPieces(request.count, limit);
        const qint64 first = request.address;
        for (qint64 i = 0; i < pieces.number; ++i) {
            // A step of twice the limit, although a piece covers the limit once. Deliberate:
            // docs/oddities.md, Several stations.
            const qint64 begin = first + 2 * i * limit;
            if (!fitsInt(begin))
                break;
            request.address = int(begin);
            request.count = int(pieces.sizeOf(i));
            const RequestIdentity id = {request.station, request.reg_type, request.address,
                                        request.count};
            if (listed.insert(id).second)
                PLC_driver.read_list.append(request);
        }
    }
}

} // namespace

void WhetherGroup(int total, int piece, RW_VAR* var, QList<RW_VAR>* target)
{
    const Pieces pieces = cutIntoPieces(total, piece);
    const qint64 first = var->address;
    for (qint64 i = 0; i < pieces.number; ++i) {
        const qint64 begin = first + i * piece;
        if (!fitsInt(begin))
            break;
        var->address = int(begin);
        var->count = int(pieces.sizeOf(i));
        target->append(*var);
    }
}

void Bubble_Sort(QList<RW_VAR>* list)
{
    std::stable_sort(list->begin(), list->end(),
                     [](const RW_VAR& a, const RW_VAR& b) { return a.address < b.address; });
}

int ReCreatReadVarList(QList<VAR_INFO> variables)
{
    Q_ASSERT(PLC_driver.com_info);
    QMutexLocker lock(&PLC_driver.list_mutex);
    QList<RW_VAR>& list = PLC_driver.read_list;
    list = QList<RW_VAR>();
    if (variables.isEmpty())
        return 0;
    PLC_driver.cycle_count = 0;
    storeShared(PLC_driver.com_info->cycle_complete, 0);
    const bool built = guarded(false, [&] {
        if (PLC_driver.com_info->per_variable_stations != 0)
            listSeveralStations(variables);
        else
            listOneStation(variables);
        return true;
    });
    if (!built)
        list = QList<RW_VAR>(); // half a list would pass for the whole
    return int(list.size());
}

int AddListReadVar(RW_VAR* var)
{
    QList<RW_VAR>& list = PLC_driver.read_list;
    return guarded(int(list.size()), [&] {
        if (var)
            list.append(*var);
        return int(list.size());
    });
}
