#include "panel/merged_reads.h"

#include "host/request_limits.h"

#include <QHash>

#include <algorithm>
#include <numeric>
#include <tuple>

namespace s7200::panel
{

namespace
{

/// The area of single bytes, timers, ... that a variable of this area is a part of.
const AreaRow* wholeArea(const AreaRow& area)
{
    static const QHash<int, const AreaRow*> bytes = [] {
        QHash<int, const AreaRow*> found;
        for (const char* text : {"IB0", "QB0", "MB0", "SB0", "SMB0", "VB0"}) {
            Variable variable;
            QString error;
            if (parseVariable(QLatin1String(text), &variable, &error))
                found.insert(variable.area->reads, variable.area);
        }
        return found;
    }();
    return bytes.value(area.reads, &area);
}

/// Bytes, timers or counters of one request.
int mostUnits(const Variable& variable)
{
    return variable.isAnalog() ? variable.area->size : RequestLimits().read(variable.area->reads);
}

/// From where `first` begins to the unit before `end`.
Variable covering(const AreaRow& area, const Variable& first, int end)
{
    Variable whole;
    whole.area = &area;
    whole.address = first.address;
    whole.station = first.station;
    whole.repeat = (end - first.address) / (whole.isAnalog() ? 2 : 1);
    return whole;
}

} // namespace

std::vector<MergedRead> mergedReads(const QVector<Item>& items)
{
    QVector<int> order(items.size());
    std::iota(order.begin(), order.end(), 0);
    const auto place = [&items](int index) {
        const Variable& variable = items.at(index).tag.variable;
        return std::make_tuple(items.at(index).controller, variable.station,
                               int(variable.area->reads), variable.firstUnit());
    };
    std::sort(order.begin(), order.end(), [&place](int a, int b) { return place(a) < place(b); });
    std::vector<MergedRead> reads;
    int end = 0; // of the last one
    for (int index : std::as_const(order)) {
        const Item& item = items.at(index);
        const Variable& variable = item.tag.variable;
        const AreaRow* const area = wholeArea(*variable.area);
        MergedRead* const last = reads.empty() ? nullptr : &reads.back();
        const int wanted = std::max(end, variable.endUnit());
        if (last && last->controller == item.controller &&
            last->variable.station == variable.station && wholeArea(*last->variable.area) == area &&
            wanted - last->variable.firstUnit() <= mostUnits(variable)) {
            end = wanted;
            last->indexes.append(index);
            last->variable = covering(*area, last->variable, end);
        } else {
            end = variable.endUnit();
            MergedRead read;
            read.controller = item.controller;
            read.variable = variable;
            read.indexes.append(index);
            reads.push_back(read);
        }
    }
    return reads;
}

QVector<quint32> elementsWithin(const Variable& part, const Variable& whole,
                                const QVector<quint32>& elements)
{
    const int first = part.address - whole.address;
    if (part.area == whole.area)
        return elements.mid(first / (part.isAnalog() ? 2 : 1), part.repeat);
    const bool bits = part.area->width == Width::Bit;
    const int bytesEach = part.area->width == Width::DoubleWord ? 4 : 2;
    QVector<quint32> found;
    for (int i = 0; i < part.repeat; ++i) {
        quint32 value = 0;
        if (bits)
            value = elements.value(first + (part.bit + i) / 8) >> (part.bit + i) % 8 & 1;
        for (int k = 0; !bits && k < bytesEach; ++k) // most significant byte first
            value = value << 8 | elements.value(first + i * bytesEach + k);
        found.append(value);
    }
    return found;
}

} // namespace s7200::panel
