#include "simulator/memory_range.h"

#include <QRegularExpression>

namespace s7200::sim
{

namespace
{

struct NameRow {
    const char* name;
    SimulatorArea area;
    int bits; ///< Of one; 0: a timer or counter.
};

constexpr NameRow Names[] = {
    {"I", SimulatorArea::I, 1},       {"IB", SimulatorArea::I, 8},
    {"IW", SimulatorArea::I, 16},     {"ID", SimulatorArea::I, 32},
    {"Q", SimulatorArea::Q, 1},       {"QB", SimulatorArea::Q, 8},
    {"QW", SimulatorArea::Q, 16},     {"QD", SimulatorArea::Q, 32},
    {"M", SimulatorArea::M, 1},       {"MB", SimulatorArea::M, 8},
    {"MW", SimulatorArea::M, 16},     {"MD", SimulatorArea::M, 32},
    {"S", SimulatorArea::S, 1},       {"SB", SimulatorArea::S, 8},
    {"SW", SimulatorArea::S, 16},     {"SD", SimulatorArea::S, 32},
    {"SM", SimulatorArea::SM, 1},     {"SMB", SimulatorArea::SM, 8},
    {"SMW", SimulatorArea::SM, 16},   {"SMD", SimulatorArea::SM, 32},
    {"V", SimulatorArea::V, 1},       {"VB", SimulatorArea::V, 8},
    {"VW", SimulatorArea::V, 16},     {"VD", SimulatorArea::V, 32},
    {"AIW", SimulatorArea::AIW, 16},  {"AQW", SimulatorArea::AQW, 16},
    {"T", SimulatorArea::Timer, 0},   {"TV", SimulatorArea::Timer, 0},
    {"C", SimulatorArea::Counter, 0}, {"CV", SimulatorArea::Counter, 0},
};

const NameRow* findName(const QString& name)
{
    for (const NameRow& row : Names) {
        if (name == QLatin1String(row.name))
            return &row;
    }
    return nullptr;
}

} // namespace

bool MemoryRange::touches(const MemoryRange& other) const
{
    return area == other.area && first < other.end && other.first < end;
}

MemoryRange MemoryRange::elementOfSameArea(qint64 number) const
{
    const bool numbered = area && ControllerMemory::elementSize(*area) > 1;
    const int units = numbered ? 1 : 8;
    return {area, number * units, (number + 1) * units};
}

std::optional<MemoryRange> MemoryRange::parse(const QString& text)
{
    static const QRegularExpression form(
        QStringLiteral("^([A-Z]+)([0-9]{1,5})(?:\\.([0-7]))?(?:X([0-9]{1,5}))?$"));
    const QRegularExpressionMatch match = form.match(text.toUpper());
    const NameRow* row = findName(match.captured(1));
    if (row == nullptr || (row->bits == 1) == match.captured(3).isEmpty())
        return std::nullopt;
    const int address = match.captured(2).toInt();
    const int count = match.captured(4).isEmpty() ? 1 : match.captured(4).toInt();
    MemoryRange range;
    range.area = row->area;
    range.first = row->bits == 0 ? address : qint64(address) * 8 + match.captured(3).toInt();
    range.end = range.first + qint64(count) * std::max(row->bits, 1);
    const qint64 units = row->bits == 0 ? ControllerMemory::size(row->area) /
                                              ControllerMemory::elementSize(row->area)
                                        : qint64(ControllerMemory::size(row->area)) * 8;
    if (count < 1 || range.end > units)
        return std::nullopt;
    return range;
}

} // namespace s7200::sim
