#include "protocol/Func_Write.h"

#include "core/checked_int.h"
#include "core/register_properties.h"
#include "core/shared_word.h"
#include "core/siemens_s7_200.h"
#include "image/host_values.h"
#include "protocol/s7_frame.h"

#include <cstring>

using namespace cp243;

namespace
{

/// Transport sizes of the data item.
constexpr quint8 DataBit = 0x03;
constexpr quint8 DataInBits = 0x04;

constexpr quint8 StatusOn = 0x02;

/// Most elements that a frame holds: what its 16-bit item length can name. Keeps an absurd count
/// from allocating in proportion.
constexpr int MostElements = 0xFFFF;

using Builder = void (*)(RW_VAR*);

struct WriteRow {
    Builder builder; ///< Null: not writable.
    quint8 dbNumber;
    quint8 area;
    bool routed; ///< Whether WriteRegister sends the type to its builder.
};

constexpr WriteRow NotWritable = {nullptr, 0, 0, false};

/// Builder, DB number and S7 area code by register type.
const WriteRow Rows[RegisterTypeCount] = {
    NotWritable,                     // I
    {WriteBool, 0, 0x82, true},      // Q
    {WriteBool, 0, 0x83, true},      // M
    {WriteBool, 0, 0x04, true},      // S
    {WriteBool, 0, 0x05, true},      // SM
    {WriteBool, 1, 0x84, true},      // V
    NotWritable,                     // IW
    {WriteAnalog, 0, 0x82, true},    // QW
    {WriteAnalog, 0, 0x83, true},    // MW
    {WriteAnalog, 0, 0x04, true},    // SW
    {WriteAnalog, 0, 0x05, true},    // SMW
    {WriteAnalog_VB, 1, 0x84, true}, // VB
    {WriteAnalog, 1, 0x84, true},    // VW
    {WriteAnalog_VD, 1, 0x84, true}, // VD
    {WriteAnalog_TV, 0, 0x1F, true}, // TV
    {WriteAnalog_CV, 0, 0x1E, true}, // CV
    {WriteAnalog, 0, 0x06, false},   // AIW: the builder knows its area, no write reaches it
    {WriteAnalog, 0, 0x07, true},    // AQW
    NotWritable,                     // T
    NotWritable,                     // C
    NotWritable,                     // ID
    {WriteAnalog_VD, 0, 0x82, true}, // QD
    {WriteAnalog_VD, 0, 0x83, true}, // MD
    {WriteAnalog_VD, 0, 0x04, true}, // SD
    {WriteAnalog_VD, 0, 0x85, true}, // SMD: 0x85, not the 0x05 of SM and SMW. Deliberate:
                                     // docs/oddities.md, Writes
};

/// The row of a register type that `builder` serves; one with area 0 for any other type.
WriteRow rowFor(Builder builder, int regType)
{
    if (registerTypeInfo(regType) && Rows[regType].builder == builder)
        return Rows[regType];
    return NotWritable;
}

/// What a builder says of its frame; N is the request's count.
struct WriteShape {
    quint8 transportSize;
    qint64 itemLength;
    qint64 startAddress;
    qint64 declaredBytes;
    quint8 dataTransportSize;
    qint64 dataItemLength;
    qint64 filledBytes; ///< Data bytes that the frame really has.
};

/// N elements of `elementBytes` each, their length given in bits.
WriteShape elementShape(const RW_VAR& var, quint8 transportSize, qint64 startAddress,
                        int elementBytes)
{
    const qint64 bytes = qint64(elementBytes) * var.count;
    return {transportSize,
            var.count,
            startAddress,
            bytes,
            DataInBits,
            8 * bytes,
            qint64(elementBytes) * qMin(var.count, MostElements)};
}

WriteShape wordShape(const RW_VAR& var)
{
    return elementShape(var, SizeWord, qint64(var.address) * 8, 2);
}

/// The frame of a write with its data bytes 0x00.
QByteArray writeFrame(const RW_VAR& var, const WriteRow& row, const WriteShape& shape)
{
    const S7Item item = {shape.transportSize, shape.itemLength, row.dbNumber, row.area,
                         shape.startAddress};
    const int length = int(qMax(JobData + shape.filledBytes, qint64(0)));
    return writeJob(var.station, item, shape.declaredBytes, shape.dataTransportSize,
                    shape.dataItemLength, length);
}

void queueWrite(const QByteArray& frame, const RW_VAR& var)
{
    recordPending(frame, {WriteReplyLength, 0, 0}, var);
    startBatch(1);
}

/// Where the data of a frame begins; its end for one that a negative count has cut short.
char* dataPart(QByteArray& frame)
{
    return frame.data() + qMin(int(JobData), int(frame.size()));
}

/// Value byte, 0x00 beyond the end.
char valueByte(const QByteArray& value, int index)
{
    return index < value.size() ? value.at(index) : '\0';
}

/// Status byte that goes with a timer or counter value. It is looked up in the image by number as
/// if T_bits had a byte for each, and in T_bits for counters too. Both deliberate:
/// docs/oddities.md, Timers and counters. Numbers past T_bits fall into C_bits behind it.
char statusByte(int number)
{
    constexpr int TimerBytes = int(sizeof PLC_driver.T_bits);
    constexpr int CounterBytes = int(sizeof PLC_driver.C_bits);
    if (number < 0 || number >= TimerBytes + CounterBytes)
        return 0;
    const unsigned char byte =
        number < TimerBytes ? PLC_driver.T_bits[number] : PLC_driver.C_bits[number - TimerBytes];
    return byte == 1 ? char(StatusOn) : '\0';
}

/// Fills elements of `elementBytes` each: the status byte first, the value in the last two, most
/// significant byte first. A value that is not wholly there leaves 0x00.
void fillTimed(QByteArray& frame, const RW_VAR& var, int elementBytes)
{
    const char status = statusByte(var.address);
    const int elements = qMin(var.count, MostElements);
    char* element = dataPart(frame);
    for (int i = 0; i < elements; ++i, element += elementBytes) {
        element[0] = status;
        if (var.value.size() > 2 * i + 1) {
            element[elementBytes - 2] = var.value.at(2 * i + 1);
            element[elementBytes - 1] = var.value.at(2 * i);
        }
    }
}

} // namespace

void WriteRegister(RW_VAR* var)
{
    if (registerTypeInfo(var->reg_type) && Rows[var->reg_type].routed)
        Rows[var->reg_type].builder(var);
    if (!loadShared(PLC_driver.link_failed))
        WriteDataToLocal(var);
}

void WriteBool(RW_VAR* var)
{
    const int bits = var->count;
    const bool single = bits == 1;
    const bool block = bits > 1;
    // A block declares its bits divided by 8 but sends one byte a bit, in a frame as long as the
    // bits: longer than its TPKT length says. Deliberate: docs/oddities.md, Writes.
    const int declared = block ? bits >> 3 : bits;
    const quint8 transportSize = single ? SizeBit : block ? SizeByte : quint8(0);
    QByteArray frame =
        writeFrame(*var, rowFor(WriteBool, var->reg_type),
                   {transportSize, declared, var->address, declared, single ? DataBit : DataInBits,
                    declared, qMin(bits, MostElements)});
    const int filled = qMin(block ? declared * 8 : int(single), MostElements);
    char* data = dataPart(frame);
    for (int i = 0; i < filled && i < var->value.size(); ++i)
        data[i] = var->value.at(i) == 1 ? 1 : 0;
    queueWrite(frame, *var);
}

void WriteAnalog(RW_VAR* var)
{
    QByteArray frame = writeFrame(*var, rowFor(WriteAnalog, var->reg_type), wordShape(*var));
    char* data = dataPart(frame);
    const int bytes = int(frame.size()) - JobData;
    for (int i = 0; i < bytes; i += 2) {
        data[i] = valueByte(var->value, i + 1);
        data[i + 1] = valueByte(var->value, i);
    }
    queueWrite(frame, *var);
}

void WriteAnalog_VB(RW_VAR* var)
{
    // Declares words but fills bytes: a VB write covers twice what it carries, and what it does not
    // carry goes out as 0x00. Deliberate: docs/oddities.md, Writes.
    QByteArray frame = writeFrame(*var, Rows[Type_VB], wordShape(*var));
    const int filled = qMin(qMin(var->count, MostElements), int(var->value.size()));
    if (filled > 0)
        std::memcpy(dataPart(frame), var->value.constData(), size_t(filled));
    queueWrite(frame, *var);
}

void WriteAnalog_VD(RW_VAR* var)
{
    constexpr int GroupBytes = 4;
    QByteArray frame = writeFrame(*var, rowFor(WriteAnalog_VD, var->reg_type), wordShape(*var));
    char* data = dataPart(frame);
    const int bytes = int(frame.size()) - JobData;
    // The last group of an odd number of words is cut in the middle, so a single word carries the
    // high half of its double word. Deliberate: docs/oddities.md, Writes.
    for (int k = 0; k < bytes && var->value.size() > k + 2; k += GroupBytes) {
        for (int i = 0; i < GroupBytes && k + i < bytes; ++i)
            data[k + i] = valueByte(var->value, k + GroupBytes - 1 - i);
    }
    queueWrite(frame, *var);
}

void WriteAnalog_TV(RW_VAR* var)
{
    constexpr int ElementBytes = 5;
    QByteArray frame =
        writeFrame(*var, Rows[Type_TV], elementShape(*var, SizeTimer, var->address, ElementBytes));
    fillTimed(frame, *var, ElementBytes);
    queueWrite(frame, *var);
}

void WriteAnalog_CV(RW_VAR* var)
{
    constexpr int ElementBytes = 3;
    QByteArray frame = writeFrame(*var, Rows[Type_CV],
                                  elementShape(*var, SizeCounter, var->address, ElementBytes));
    fillTimed(frame, *var, ElementBytes);
    queueWrite(frame, *var);
}
