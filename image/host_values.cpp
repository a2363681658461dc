#include "image/host_values.h"

#include "core/checked_int.h"
#include "core/guard.h"
#include "core/register_properties.h"
#include "core/shared_word.h"
#include "core/siemens_s7_200.h"
#include "image/Func_GetOrSetData.h"
#include "image/extend_list.h"
#include "image/extend_values.h"
#include "image/host_bytes.h"
#include "image/image_areas.h"
#include "varlists/Func_Initi.h"

#include <siemens_s7_200_cp243/host_interface.h>

#include <QMutexLocker>

using namespace cp243;

namespace
{

constexpr int WriteOrigin = 1;

/// Most elements of one write request, which is what the 16-bit length of an item can name, and
/// most requests of one host write (of bits as many as V memory has). Keeps an absurd count from
/// allocating and looping in proportion.
constexpr int MostWriteElements = 0xFFFF;
constexpr int MostWriteRequests = 0xFFFF;

void readImage(QByteArray& out, int regType, int address, int count)
{
    const RegisterTypeInfo* type = registerTypeInfo(regType);
    if (!type)
        return;
    switch (type->width) {
    case Width::Bit:
    case Width::TimerBit:
    case Width::CounterBit:
        GetBit_unsigned_char(out, byteArea(type->area), address, count);
        break;
    case Width::Byte:
        Get8BitFromUC(out, byteArea(type->area), address, count);
        break;
    case Width::Word:
    case Width::AnalogWord:
        GetWord_unsigned_char(out, byteArea(type->area), address, count);
        break;
    case Width::DoubleWord:
        Get32BitFromUc(out, byteArea(type->area), address, count);
        break;
    case Width::Timer:
    case Width::Counter:
        GetWord_unsigned_short(out, valueArea(type->area), address, count);
        break;
    }
}

void writeImage(RW_VAR& var)
{
    const RegisterTypeInfo* type = registerTypeInfo(var.reg_type);
    if (!type)
        return;
    switch (type->width) {
    case Width::Bit:
        SetBit_unsigned_char(var.address, byteArea(type->area), &var.value, var.count);
        break;
    case Width::Byte:
        Set8BitToUC(var.address, byteArea(type->area), &var.value, var.count);
        break;
    case Width::Word:
    case Width::AnalogWord:
        SetValue_unsigned_char(var.address, byteArea(type->area), &var.value, var.count);
        break;
    case Width::DoubleWord:
        // ID is the one input type that a write leaves alone. Deliberate: docs/oddities.md, Writes.
        if (type->area != Area::I)
            Set32BitToUC(var.address, byteArea(type->area), &var.value, var.count);
        break;
    case Width::Timer:
    case Width::Counter:
        SetValue_unsigned_short(var.address, valueArea(type->area), &var.value, var.count);
        break;
    case Width::TimerBit:
    case Width::CounterBit:
        break;
    }
}

// Host writes for the controller

/// `size` bytes of the host's value from `from` on, 0 for those beyond its end.
QByteArray valuePiece(const QByteArray& data, qint64 from, qint64 size)
{
    QByteArray piece = from < data.size() ? data.mid(int(from), int(size)) : QByteArray();
    grown(piece, size);
    return piece;
}

/// How a host write is cut into requests.
struct WriteUnits {
    qint64 elements;
    qint64 perRequest;
    int addressStep; ///< Address units per element.
    int valueBytes;  ///< Host bytes per element.
};

WriteUnits writeUnits(const RegisterTypeInfo& type, int count)
{
    const qint64 limit = PLC_driver.com_info->block_length_limit;
    const bool inPieces = limit > 0 && limit <= MostWriteElements;
    const qint64 most = inPieces ? limit * MostWriteRequests : qint64(MostWriteElements);
    const qint64 elements = qMin(qint64(count), most);
    switch (type.width) {
    case Width::Bit:
        return {qMin(count, MostExtendBits), 1, 1, 1};
    case Width::DoubleWord:
        return {(elements + 1) & ~qint64(1), limit, 2, 2};
    case Width::Word:
    case Width::AnalogWord:
        return {elements, limit, 2, 2};
    default:
        return {elements, limit, 1, 2};
    }
}

/// Queues the write piece by piece; while the link has failed the image takes the value at once,
/// since no frame will be built to bring it there. Returns the size of the write queue.
int queuePieces(RW_VAR& request, const RegisterTypeInfo& type, const QByteArray& data, int count)
{
    const WriteUnits units = writeUnits(type, count);
    if (units.elements <= 0)
        return 0;
    const Pieces pieces = cutIntoPieces(units.elements, units.perRequest);
    const qint64 address = request.address;
    const bool searched = PLC_driver.com_info->per_variable_stations != 0;
    const int mostUnits = type.width == Width::Bit ? MostExtendBits : MostExtendElements;
    int queued = 0;
    for (qint64 j = 0; j < pieces.number; ++j) {
        const qint64 first = j * pieces.size;
        const qint64 begin = address + first * units.addressStep;
        if (!fitsInt(begin))
            break;
        request.address = int(begin);
        request.count = int(pieces.sizeOf(j));
        request.value =
            valuePiece(data, first * units.valueBytes, request.count * qint64(units.valueBytes));
        queued = AddListWriteVar(&request, List_Merge);
        if (queued == 0)
            return 0; // out of memory: the host must not take a part for the whole
        // The extend list takes as much of an absurd count as of one in a single request.
        const bool beyond = searched && first * units.addressStep >= mostUnits;
        if (!beyond && loadShared(PLC_driver.link_failed))
            WriteDataToLocal(&request);
    }
    return queued;
}

int readValue(int regType, const QString& addressText, int station, QByteArray& data, int count)
{
    const int address = StringAddressToInt(regType, addressText);
    if (address < 0)
        return 0;
    Q_ASSERT(PLC_driver.com_info);
    QMutexLocker lock(&PLC_driver.data_mutex);
    if (PLC_driver.com_info->per_variable_stations == 0)
        readImage(data, regType, address, count);
    else
        readExtendList(data, regType, station, address, count);
    return 1;
}

/// `request` names the variable and carries the host's tags.
int writeValue(RW_VAR& request, const QByteArray& data, int count)
{
    request.address = StringAddressToInt(request.reg_type, request.address_text);
    if (request.address < 0)
        return 0;
    Q_ASSERT(PLC_driver.com_info);
    const COM_INFO& info = *PLC_driver.com_info;
    request.origin = WriteOrigin;
    request.remote = info.remote_access;
    request.link_id = info.link_id;
    if (info.per_variable_stations == 0)
        request.station = info.default_station;
    if (info.communication_mode != Mode_WriteThrough) {
        request.count = count;
        request.value = data;
        WriteDataToLocal(&request);
        return 1;
    }
    const RegisterTypeInfo* type = registerTypeInfo(request.reg_type);
    if (!type || !type->writable)
        return 0;
    return queuePieces(request, *type, data, count);
}

} // namespace

int GetRegisterData(QString name, int reg_type, QString address_text, int station, QByteArray& data,
                    int count)
{
    Q_UNUSED(name);
    return guarded(0, [&] { return readValue(reg_type, address_text, station, data, count); });
}

int SetRegisterData(QString name, int reg_type, QString address_text, int station, QByteArray* data,
                    int count, int host_key, int host_index)
{
    if (!data)
        return 0;
    RW_VAR request;
    request.host_key = host_key;
    request.host_index = host_index;
    request.name = name;
    request.address_text = address_text;
    request.reg_type = reg_type;
    request.station = station;
    return guarded(0, [&] { return writeValue(request, *data, count); });
}

void WriteDataToLocal(RW_VAR* var)
{
    QMutexLocker lock(&PLC_driver.data_mutex);
    if (PLC_driver.com_info->per_variable_stations == 0)
        writeImage(*var);
    else
        writeExtendList(*var);
}
