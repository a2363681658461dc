#include "varlists/Func_Initi.h"

#include "core/checked_int.h"
#include "core/register_properties.h"
#include "core/shared_word.h"
#include "core/siemens_s7_200.h"

#include <QMutexLocker>
#include <QSet>
#include <QStringList>

#include <algorithm>

using namespace cp243;

namespace
{

constexpr int InvalidAddress = -1;
constexpr int QueueLimit = 1024;

/// Most bytes or elements that one listed variable covers: what the 16-bit length of an item can
/// name. Keeps an absurd count from filling memory with pieces.
constexpr qint64 LargestRange = 0xFFFF;

/// Cyclic requests made from a variable list carry no host tags.
constexpr int NoHostKey = 0;
constexpr int NoHostIndex = -1;

bool isBitType(int regType)
{
    return regType >= Type_I && regType <= Type_V;
}

/// Bytes that `bits` bits cover, the first of which is bit `bitInByte` of its byte.
qint64 bytesOfBits(qint64 bitInByte, qint64 bits)
{
    return (bitInByte + bits + 7) >> 3;
}

/// Bytes of `words` 16-bit words made up to whole double words.
qint64 bytesOfDoubleWords(qint64 words)
{
    return (words + 1) / 2 * 4;
}

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

/// Widens a bit, double-word or element request to its bytes; words, VB and SW differ between the
/// two methods and are widened by them.
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

/// Largest piece of a cyclic request. The factors are measured against a byte count all the same:
/// hosts choose their limit by the requests that come of it.
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
        AddListReadVar(&request);
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

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
using HashValue = uint;
#else
using HashValue = size_t;
#endif

HashValue qHash(const RequestIdentity& id, HashValue seed = 0)
{
    constexpr quint64 Multiplier = 0x9E3779B97F4A7C15u;
    const quint64 place = (quint64(quint32(id.address)) << 32) | quint32(id.count);
    const quint64 owner = (quint64(quint32(id.station)) << 32) | quint32(id.reg_type);
    return HashValue(((place ^ (owner * Multiplier) ^ seed) * Multiplier) >> 32);
}

/// The several-stations method has widths of its own: VB counts as a word, SW (and a code outside
/// the table) as its plain count. Hosts of several stations double the count of an SW themselves.
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
    QSet<RequestIdentity> listed;
    for (const VAR_INFO& variable : variables) {
        const int address = StringAddressToInt(variable.reg_type, variable.address_text);
        if (address < 0)
            continue;
        RW_VAR request = cyclicRequest(variable, address, variable.station);
        widenForStation(request);
        const Pieces pieces = cutIntoPieces(request.count, limit);
        const qint64 first = request.address;
        for (qint64 i = 0; i < pieces.number; ++i) {
            // A step of twice the limit, although a piece covers the limit once: hosts list long
            // variables in short ones because of it.
            const qint64 begin = first + 2 * i * limit;
            if (!fitsInt(begin))
                break;
            request.address = int(begin);
            request.count = int(pieces.sizeOf(i));
            const RequestIdentity id = {request.station, request.reg_type, request.address,
                                        request.count};
            if (listed.contains(id))
                continue;
            listed.insert(id);
            AddListReadVar(&request);
        }
    }
}

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
        // The start stays in bit units, where the cyclic list goes over to bytes: hosts that need
        // bits once ask for the bytes instead.
        return {address & ~7, bytesOfBits(address & 7, elements), 1};
    case Width::Byte:
    case Width::Word:
        return {address, 2 * elements, 1};
    case Width::DoubleWord:
        setReg_type(&var);
        return {address, bytesOfDoubleWords(elements), 1};
    default:
        // Twice the step here: hosts ask for timers, counters and analogue words in pieces.
        return {address, elements, 2};
    }
}

} // namespace

int StringAddressToInt(int regType, QString text)
{
    if (!isBitType(regType)) {
        bool valid = false;
        const int number = text.toInt(&valid);
        return valid ? number : InvalidAddress;
    }
    if (!text.contains(QLatin1Char('.')))
        return InvalidAddress;
    const QStringList parts = text.split(QLatin1Char('.'));
    const qint64 address = qint64(parts.at(0).toInt()) * 8 + parts.at(1).toInt();
    return fitsInt(address) ? int(address) : InvalidAddress;
}

int PLCAddressChangeIntef(int regType, QString text)
{
    return StringAddressToInt(regType, text);
}

void setReg_type(RW_VAR* var)
{
    if (const RegisterTypeInfo* type = registerTypeInfo(var->reg_type))
        var->reg_type = type->wordType;
}

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
    PLC_driver.read_list = QList<RW_VAR>();
    if (variables.isEmpty())
        return 0;
    PLC_driver.cycle_count = 0;
    storeShared(PLC_driver.com_info->cycle_complete, 0);
    if (PLC_driver.com_info->per_variable_stations != 0)
        listSeveralStations(variables);
    else
        listOneStation(variables);
    return int(PLC_driver.read_list.size());
}

int AddListReadVar(RW_VAR* var)
{
    if (var)
        PLC_driver.read_list.append(*var);
    return int(PLC_driver.read_list.size());
}

int AddListWriteVar(RW_VAR* var, int mode)
{
    if (!var)
        return 0;
    QMutexLocker lock(&PLC_driver.list_mutex);
    QList<RW_VAR>& list = PLC_driver.write_list;
    const int size = int(list.size());
    if (mode == List_Append || size < 2) {
        list.append(*var);
        return size + 1;
    }
    // The first entry is never replaced: its frame may be on the wire.
    for (int i = 1; i < size; ++i) {
        if (samePlace(list.at(i), *var)) {
            list[i] = *var;
            return size;
        }
    }
    if (size < QueueLimit)
        list.append(*var);
    return int(list.size());
}

int AddListOnceReadVar(RW_VAR* var, int mode)
{
    QList<RW_VAR>& list = PLC_driver.once_read_list;
    if (!var)
        return 0;
    if (mode == List_Append) {
        QMutexLocker lock(&PLC_driver.list_mutex);
        list.append(*var);
        return int(list.size());
    }
    const int address = StringAddressToInt(var->reg_type, var->address_text);
    if (address < 0)
        return 0;
    Q_ASSERT(PLC_driver.com_info);
    const COM_INFO& info = *PLC_driver.com_info;
    var->reserved1 = var->reserved2 = 0;
    if (info.per_variable_stations == 0)
        var->station = info.default_station;
    const qint64 limit = info.block_length_limit;
    const OneShotRange range = normalise(*var, address);
    const Pieces pieces = cutIntoPieces(range.count, limit);
    const auto beginOf = [&](qint64 i) { return range.start + range.stepFactor * i * limit; };
    const auto setPiece = [&](qint64 i) {
        var->address = clampToInt(beginOf(i));
        var->count = clampToInt(pieces.sizeOf(i));
    };

    QMutexLocker lock(&PLC_driver.list_mutex);
    for (qint64 i = 0; i < pieces.number && fitsInt(beginOf(i)); ++i) {
        setPiece(i);
        if (isListed(*var))
            continue;
        if (int(list.size()) >= QueueLimit)
            break; // nothing further can enter
        list.append(*var);
    }
    if (pieces.number > 0)
        setPiece(pieces.number - 1);
    return int(list.size());
}
