#include "host/request_plan.h"

#include <QtEndian>

#include <algorithm>

namespace s7200
{

namespace
{

constexpr int IwType = 6; // the first type that is not a bit
constexpr int SwType = 9;
constexpr int VBitType = 5;
constexpr int VwType = 12;
constexpr int TvType = 14;
constexpr int CvType = 15;
constexpr int AiwType = 16;
constexpr int AqwType = 17;
constexpr int TType = 18;
constexpr int CType = 19;

/// One at a time, since what the driver holds goes out even after a refusal.
constexpr int BitsPerStep = 1;

bool isTimer(int type)
{
    return type == TvType || type == TType;
}

bool isCounter(int type)
{
    return type == CvType || type == CType;
}

bool isAnalog(int type)
{
    return type == AiwType || type == AqwType;
}

/// The driver goes by these names to tell how long a timer's or counter's reply is.
QString nameOf(int type)
{
    switch (type) {
    case TvType:
        return QStringLiteral("TV");
    case CvType:
        return QStringLiteral("CV");
    case TType:
        return QStringLiteral("T");
    case CType:
        return QStringLiteral("C");
    default:
        return QString();
    }
}

/// In elements of the register type: words, timers or counters.
int elementsOf(const ReadBlock& block)
{
    return isTimer(block.type) || isCounter(block.type) ? block.units : block.units / 2;
}

VAR_INFO cyclicRecord(const ReadBlock& block, bool stationEach)
{
    VAR_INFO record;
    record.reg_type = static_cast<unsigned char>(block.type);
    record.station = static_cast<unsigned char>(block.station);
    record.address_text = QString::number(block.start);
    record.name = nameOf(block.type);
    record.count = elementsOf(block);
    // With a station each the driver takes the count of SW for bytes.
    if (stationEach && block.type == SwType)
        record.count *= 2;
    return record;
}

QByteArray wordBytes(quint32 value)
{
    QByteArray bytes(2, '\0');
    qToLittleEndian(quint16(value), bytes.data());
    return bytes;
}

QByteArray doubleWordBytes(quint32 value)
{
    QByteArray bytes(4, '\0');
    qToLittleEndian(value, bytes.data());
    return bytes;
}

/// Bits are one request each, in the order given; `first` counts bits from the area's start.
QList<WriteStep> bitSteps(int type, int first, const QByteArray& bits)
{
    QList<WriteStep> steps;
    for (int done = 0; done < int(bits.size()); done += BitsPerStep) {
        WriteStep step;
        step.type = type;
        step.address = QStringLiteral("%1.%2").arg((first + done) / 8).arg((first + done) % 8);
        step.data = bits.mid(done, BitsPerStep);
        step.count = step.requests = int(step.data.size());
        steps.append(step);
    }
    return steps;
}

/// The lowest `width` bits of each value, lowest first.
QByteArray bitsOf(const QVector<quint32>& values, int width)
{
    QByteArray bits;
    for (quint32 value : values) {
        for (int bit = 0; bit < width; ++bit)
            bits.append(char(value >> bit & 1));
    }
    return bits;
}

/// Words from `address` on, or timers or counters; of double words two for each value.
QList<WriteStep> wordSteps(int type, int address, const QVector<quint32>& values, int valueWords,
                           int limit)
{
    const bool numbered = isTimer(type) || isCounter(type);
    const int most = std::max(1, limit / valueWords);
    QList<WriteStep> steps;
    for (int done = 0; done < int(values.size()); done += most) {
        WriteStep step;
        step.type = type;
        step.address = QString::number(address + done * (numbered ? 1 : 2 * valueWords));
        for (quint32 value : values.mid(done, most))
            step.data += valueWords == 2 ? doubleWordBytes(value) : wordBytes(value);
        step.count = int(step.data.size()) / 2;
        step.requests = 1;
        steps.append(step);
    }
    return steps;
}

/// The bit type of the area whose words are of this type.
int bitTypeOf(int wordType)
{
    return wordType == VwType ? VBitType : wordType - IwType;
}

/// Bytes in pairs as words, which may begin at any byte, and a last odd one as bits: the driver's
/// own write of V bytes covers twice the bytes named, and other areas have no such write.
QList<WriteStep> byteSteps(const Variable& variable, const QVector<quint32>& values, int limit)
{
    const int pairs = int(values.size()) / 2;
    QVector<quint32> words;
    for (int i = 0; i < pairs; ++i)
        words.append(values.at(2 * i) << 8 | values.at(2 * i + 1));
    const int type = variable.area->reads;
    QList<WriteStep> steps = wordSteps(type, variable.address, words, 1, limit);
    const int odd = 8 * (variable.address + 2 * pairs);
    return steps + bitSteps(bitTypeOf(type), odd, bitsOf(values.mid(2 * pairs), 8));
}

} // namespace

bool ReadBlock::operator==(const ReadBlock& other) const
{
    return type == other.type && station == other.station && start == other.start &&
           units == other.units;
}

bool ReadBlock::covers(const ReadBlock& other) const
{
    return type == other.type && station == other.station && start <= other.start &&
           start + units >= other.start + other.units;
}

bool ReadBlock::overlaps(const ReadBlock& other) const
{
    return type == other.type && station == other.station && start < other.start + other.units &&
           other.start < start + units;
}

ReadBlock extentOf(const Variable& variable, int station)
{
    ReadBlock block;
    block.type = variable.area->reads;
    block.station = station;
    block.start = variable.firstUnit();
    block.units = variable.endUnit() - variable.firstUnit();
    return block;
}

QVector<ReadBlock> readBlocks(const Variable& variable, int station, int limit)
{
    ReadBlock whole = extentOf(variable, station);
    // An odd number of bytes is widened to the even boundary, which every area ends on, so that
    // nothing behind the area's end is asked for.
    if (!variable.area->numbered && whole.units % 2 != 0) {
        whole.start -= whole.start % 2;
        ++whole.units;
    }
    const int unit = variable.area->numbered                     ? 1
                     : variable.area->width == Width::DoubleWord ? 4
                                                                 : 2;
    const int most = std::max(unit, limit / unit * unit);
    QVector<ReadBlock> blocks;
    for (int done = 0; done < whole.units; done += most) {
        ReadBlock block = whole;
        block.start += done;
        block.units = std::min(most, whole.units - done);
        blocks.append(block);
    }
    return blocks;
}

ReadBlock blockOf(const RW_VAR& request)
{
    ReadBlock block;
    block.type = request.reg_type;
    block.station = request.station;
    block.start = request.address;
    block.units = isAnalog(request.reg_type) ? 2 * request.count : request.count;
    return block;
}

ReadBlock writtenBlock(const RW_VAR& request)
{
    ReadBlock block;
    block.type = readTypeOf(request.reg_type);
    block.station = request.station;
    block.start = request.address;
    block.units = request.count;
    if (request.reg_type < IwType)
        block.start /= 8; // written one bit at a time
    else if (!isTimer(request.reg_type) && !isCounter(request.reg_type))
        block.units *= 2;
    return block;
}

QList<VAR_INFO> cyclicRecords(const QVector<ReadBlock>& blocks, bool stationEach)
{
    QVector<ReadBlock> listed;
    for (const ReadBlock& block : blocks) {
        const auto same = std::find_if(listed.begin(), listed.end(), [&](const ReadBlock& other) {
            return isAnalog(block.type) && other.type == block.type &&
                   other.station == block.station;
        });
        if (same == listed.end()) {
            listed.append(block);
            continue;
        }
        const int end = std::max(same->start + same->units, block.start + block.units);
        same->start = std::min(same->start, block.start);
        same->units = end - same->start;
    }
    QList<VAR_INFO> records;
    for (const ReadBlock& block : listed)
        records.append(cyclicRecord(block, stationEach));
    return records;
}

RW_VAR oneShotRecord(const ReadBlock& block)
{
    RW_VAR record;
    record.name = nameOf(block.type);
    record.address_text = QString::number(block.start);
    record.reg_type = block.type;
    record.station = block.station;
    record.count = elementsOf(block);
    return record;
}

QList<WriteStep> writeSteps(const Variable& variable, const QVector<quint32>& values, int limit)
{
    switch (variable.area->width) {
    case Width::Bit:
        return bitSteps(variable.area->type, 8 * variable.address + variable.bit,
                        bitsOf(values, 1));
    case Width::Byte:
        return byteSteps(variable, values, limit);
    default:
        return wordSteps(variable.area->type, variable.address, values,
                         variable.area->width == Width::DoubleWord ? 2 : 1, limit);
    }
}

QByteArray statusBits(int type, const QByteArray& payload)
{
    constexpr char TimerOn = 0x02;
    constexpr char CounterOn = 0x10;
    constexpr int TimerEntry = 5; // status, two unused bytes, value
    constexpr int CounterEntry = 3;
    QByteArray bits;
    if (type != TType && type != CType)
        return bits;
    const int stride = type == TType ? TimerEntry : CounterEntry;
    const char on = type == TType ? TimerOn : CounterOn;
    for (int entry = 0; entry + stride <= int(payload.size()); entry += stride)
        bits.append(payload.at(entry) == on ? char(1) : char(0));
    return bits;
}

} // namespace s7200
