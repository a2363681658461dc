#include "protocol/Func_Read.h"

#include "core/checked_int.h"
#include "core/register_properties.h"
#include "protocol/s7_frame.h"

using namespace cp243;

namespace
{

constexpr int TimerElementBytes = 5;
constexpr int CounterElementBytes = 3;

using Builder = void (*)(RW_VAR*);

struct ReadRow {
    Builder builder;
    quint8 dbNumber;
    quint8 area;
};

/// Builder, DB number and S7 area code by register type.
const ReadRow Rows[RegisterTypeCount] = {
    {ReadBool, 0, 0x81},        // I
    {ReadBool, 0, 0x82},        // Q
    {ReadBool, 0, 0x83},        // M
    {ReadBool, 0, 0x04},        // S
    {ReadBool, 0, 0x05},        // SM
    {ReadAnalog, 1, 0x84},      // V: by byte address, unlike the other bit types
    {ReadAnalog, 0, 0x81},      // IW
    {ReadAnalog, 0, 0x82},      // QW
    {ReadAnalog, 0, 0x83},      // MW
    {ReadAnalog, 0, 0x04},      // SW
    {ReadAnalog, 0, 0x05},      // SMW
    {ReadAnalog, 1, 0x84},      // VB
    {ReadAnalog, 1, 0x84},      // VW
    {ReadAnalog, 1, 0x84},      // VD
    {ReadRegister_TC, 0, 0x1F}, // TV
    {ReadRegister_TC, 0, 0x1E}, // CV
    {ReadAnalog_W, 0, 0x06},    // AIW
    {ReadAnalog_W, 0, 0x07},    // AQW
    {ReadRegister_TC, 0, 0x1F}, // T
    {ReadRegister_TC, 0, 0x1E}, // C
    {ReadAnalog, 0, 0x81},      // ID
    {ReadAnalog, 0, 0x82},      // QD
    {ReadAnalog, 0, 0x83},      // MD
    {ReadAnalog, 0, 0x04},      // SD
    {ReadAnalog, 0, 0x05},      // SMD
};

/// The row of a register type that `builder` serves; an empty one for any other type.
ReadRow rowFor(Builder builder, int regType)
{
    if (registerTypeInfo(regType) && Rows[regType].builder == builder)
        return Rows[regType];
    return {nullptr, 0, 0};
}

ExpectedReply replyWithData(qint64 dataBytes)
{
    return {clampToInt(ReadReplyHeader + dataBytes), ReadReplyHeader, clampToInt(dataBytes)};
}

void queueRead(const RW_VAR& var, const S7Item& item, const ExpectedReply& expected)
{
    recordPending(readJob(var.station, item), expected, var);
    startBatch(1);
}

qint64 bitAddress(const RW_VAR& var)
{
    return qint64(var.address) * 8;
}

/// The reply's element size follows the request's name alone, while the area asked for follows the
/// register type. Deliberate: docs/oddities.md, Timers and counters. 0 for any other name.
int elementBytes(const QString& name)
{
    if (name == QLatin1String("T") || name == QLatin1String("TV"))
        return TimerElementBytes;
    if (name == QLatin1String("C") || name == QLatin1String("CV"))
        return CounterElementBytes;
    return 0;
}

} // namespace

void ReadRegister(RW_VAR* var)
{
    if (registerTypeInfo(var->reg_type))
        Rows[var->reg_type].builder(var);
}

void ReadBool(RW_VAR* var)
{
    const ReadRow row = rowFor(ReadBool, var->reg_type);
    const qint64 wholeByte = qint64(var->address) / 8 * 8;
    queueRead(*var, {SizeByte, var->count, row.dbNumber, row.area, wholeByte},
              replyWithData(var->count));
}

void ReadAnalog(RW_VAR* var)
{
    const ReadRow row = rowFor(ReadAnalog, var->reg_type);
    queueRead(*var, {SizeByte, var->count, row.dbNumber, row.area, bitAddress(*var)},
              replyWithData(var->count));
}

void ReadAnalog_W(RW_VAR* var)
{
    const ReadRow row = rowFor(ReadAnalog_W, var->reg_type);
    queueRead(*var, {SizeWord, var->count, row.dbNumber, row.area, bitAddress(*var)},
              replyWithData(2 * qint64(var->count)));
}

void ReadRegister_TC(RW_VAR* var)
{
    const ReadRow row = rowFor(ReadRegister_TC, var->reg_type);
    const S7Item item = {row.area, var->count, row.dbNumber, row.area, var->address};
    const int size = elementBytes(var->name);
    queueRead(*var, item, size ? replyWithData(size * qint64(var->count)) : ExpectedReply{0, 0, 0});
}

void ReadRegister_VB(RW_VAR* var)
{
    const ReadRow row = Rows[Type_VB];
    const qint64 bytes = 2 * qint64(var->count);
    queueRead(*var, {SizeByte, bytes, row.dbNumber, row.area, bitAddress(*var)},
              replyWithData(bytes));
}
