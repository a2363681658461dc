#include "tests/simulation_frames.h"

#include "simulator/s7_request.h"
#include "wire/s7_fields.h"

#include <siemens_s7_200_cp243/register_types.h>

#include <QtEndian>

#include <algorithm>
#include <optional>

namespace s7200::simulation
{

using sim::ControllerMemory;
using wire::AreaCode;

namespace
{

constexpr int TimerStatusOn = 2;
constexpr int CounterStatusOn = 0x10;

std::optional<Area> areaOfCode(int code)
{
    static constexpr AreaCode Codes[] = {
        AreaCode::I, AreaCode::Q,   AreaCode::M,   AreaCode::S,     AreaCode::SM,
        AreaCode::V, AreaCode::AIW, AreaCode::AQW, AreaCode::Timer, AreaCode::Counter};
    for (int i = 0; i < 10; ++i) {
        if (int(Codes[i]) == code)
            return Area(i);
    }
    return std::nullopt;
}

Area areaOfType(int type)
{
    static constexpr Area Areas[] = {
        Area::I,     Area::Q,       Area::M,   Area::S,   Area::SM,    Area::V,       Area::I,
        Area::Q,     Area::M,       Area::S,   Area::SM,  Area::V,     Area::V,       Area::V,
        Area::Timer, Area::Counter, Area::AIW, Area::AQW, Area::Timer, Area::Counter, Area::I,
        Area::Q,     Area::M,       Area::S,   Area::SM};
    return Areas[type];
}

bool isDoubleWord(int type)
{
    return type == Type_VD || type >= Type_ID;
}

Asked askedByJob(const QByteArray& frame)
{
    Asked result;
    const sim::S7Request job = sim::parseS7Request(frame);
    result.reference = job.reference;
    result.parameters = job.connectParameters;
    if (job.kind == sim::S7Request::Connect)
        result.kind = Asked::Connect;
    else if (job.kind == sim::S7Request::Setup)
        result.kind = Asked::Setup;
    const std::optional<Area> area = areaOfCode(job.area);
    if ((job.kind != sim::S7Request::Read && job.kind != sim::S7Request::Write) || !area)
        return result;
    result.kind = job.kind == sim::S7Request::Read ? Asked::Read : Asked::Write;
    const int size = ControllerMemory::elementSize(*area);
    const bool isBit = job.transportSize == int(wire::ItemSize::Bit);
    const int width = size > 1 ? size : job.transportSize == int(wire::ItemSize::Word) ? 2 : 1;
    result.span = {*area, size > 1 ? job.address * size : job.address / 8, job.count * width};
    result.bit = isBit ? job.address % 8 : -1;
    result.data = job.data;
    result.payload = result.span.bytes;
    return result;
}

/// A record's value, least significant byte first, as the controller keeps it.
QByteArray turned(const QByteArray& value, int type, int count)
{
    const int width = isDoubleWord(type) ? 4 : 2;
    const int bytes = std::min(2 * count, int(value.size()));
    QByteArray result;
    for (int i = 0; i + width <= bytes; i += width) {
        if (type == Type_TV)
            result += QByteArray(3, '\0');
        else if (type == Type_CV)
            result += QByteArray(1, '\0');
        for (int k = width - 1; k >= 0; --k)
            result += value.at(i + k);
    }
    return result;
}

Asked askedByRecord(const QByteArray& record)
{
    constexpr int Header = 21;
    Asked result;
    const int type = wire::wordAt(record, 5);
    if (record.size() <= Header || type > Type_SMD)
        return result;
    const int address = qFromBigEndian<qint32>(record.constData() + 7);
    const int count = wire::wordAt(record, 11);
    const Area area = areaOfType(type);
    const int size = ControllerMemory::elementSize(area);
    result.kind = record.at(2) != 0 ? Asked::Write : Asked::Read;
    const bool isBit = type <= Type_V;
    if (result.kind == Asked::Read) {
        const bool words = type == Type_AIW || type == Type_AQW;
        result.payload = count * (size > 1 ? size : 2);
        result.span = {area, address * size, size > 1 || words ? result.payload : count};
    } else if (isBit) {
        result.span = {area, address / 8, 1};
        result.bit = address % 8;
        result.data = QByteArray(1, record.at(Header));
    } else {
        result.data = turned(record.mid(Header, record.size() - Header - 1), type, count);
        result.span = {area, address * size, int(result.data.size())};
    }
    return result;
}

} // namespace

Asked asked(const QByteArray& frame, bool remote)
{
    return remote ? askedByRecord(frame) : askedByJob(frame);
}

Element elementOf(const Variable& variable, int number)
{
    const Area area = areaOfType(variable.area->reads);
    const int size = ControllerMemory::elementSize(area);
    if (size > 1)
        return {{area, (variable.address + number) * size, size}, -1};
    switch (variable.area->width) {
    case Width::Bit: {
        const int bit = variable.bit + number;
        return {{area, variable.address + bit / 8, 1}, bit % 8};
    }
    case Width::Byte:
        return {{area, variable.address + number, 1}, -1};
    case Width::DoubleWord:
        return {{area, variable.address + 4 * number, 4}, -1};
    default:
        return {{area, variable.address + 2 * number, 2}, -1};
    }
}

quint32 elementValue(const Variable& variable, const Element& element, const QByteArray& bytes)
{
    const auto byte = [&bytes](int index) { return quint32(quint8(bytes.at(index))); };
    if (element.bit >= 0)
        return byte(0) >> element.bit & 1;
    if (variable.area->numbered) {
        if (variable.area->width == Width::Bit) // the reply says so; the image only ever sets it
            return element.span.area == Area::Timer ? byte(0) == TimerStatusOn
                                                    : byte(0) == CounterStatusOn;
        return byte(element.span.bytes - 2) << 8 | byte(element.span.bytes - 1);
    }
    quint32 value = 0;
    for (int i = 0; i < element.span.bytes; ++i)
        value = value << 8 | byte(i);
    return value;
}

Span spanOf(const Variable& variable, bool widened)
{
    const Span first = elementOf(variable, 0).span;
    const Span last = elementOf(variable, variable.repeat - 1).span;
    Span whole{first.area, first.first, last.first + last.bytes - first.first};
    if (widened && !variable.area->numbered && whole.bytes % 2 != 0) {
        whole.bytes += 1;
        whole.first -= whole.first % 2;
    }
    return whole;
}

QByteArray bytesOfValues(const Variable& variable, const QVector<quint32>& values)
{
    QByteArray bytes;
    for (int i = 0; i < int(values.size()); ++i) {
        const Element element = elementOf(variable, i);
        const int count = element.bit >= 0 ? 1 : variable.area->numbered ? 2 : element.span.bytes;
        bytes += QByteArray(element.span.bytes - count, '\0');
        for (int k = count - 1; k >= 0; --k)
            bytes += char(values.at(i) >> 8 * k);
    }
    return bytes;
}

} // namespace s7200::simulation
