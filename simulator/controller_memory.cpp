#include "simulator/controller_memory.h"

#include <QtEndian>

#include <algorithm>
#include <cstring>

namespace s7200::sim
{

namespace
{

// A large S7-200 has less of I, Q, M, S and SM; there is more here so that a host can try
// addresses freely, and still an end beyond which a module refuses.
struct AreaShape {
    int elements;
    int elementSize;
};

constexpr AreaShape Shapes[] = {
    {128, 1},   // I
    {128, 1},   // Q
    {256, 1},   // M
    {256, 1},   // S
    {1024, 1},  // SM
    {10240, 1}, // V
    {64, 1},    // AIW
    {64, 1},    // AQW
    {256, 5},   // Timer
    {256, 3},   // Counter
};

constexpr int FirstWritableSpecialByte = 30;
constexpr char TimerBitOn = 0x02;
constexpr char CounterBitOn = 0x10;

constexpr int LiveTimer = 37;
constexpr int LiveTimerPreset = 50;
constexpr int LiveTimerEnd = 100;
constexpr int LiveCounter = 5;
constexpr int LiveCounterPreset = 10;
constexpr int LiveCounterEnd = 20;
constexpr int HalfBlink = 5; // ticks: 1 Hz
constexpr int RampTop = 100; // ticks up, and as many down

struct LivePlace {
    SimulatorArea area;
    int offset;
    int bytes;
    int bit; // -1: whole bytes
    const char* text;
};

// In the order of ControllerMemory::LiveValue.
constexpr LivePlace LivePlaces[] = {
    {SimulatorArea::V, 0, 2, -1, "VW0    counts up by 1 every 100 ms"},
    {SimulatorArea::V, 2, 2, -1, "VW2    ramp: 0 to 1000 and back, 10 every 100 ms"},
    {SimulatorArea::V, 4, 4, -1, "VD4    REAL: 20.0 to 30.0 and back, in step with VW2"},
    {SimulatorArea::AIW, 0, 2, -1, "AIW0   ramp: 0 to 32000 and back, in step with VW2"},
    {SimulatorArea::Q, 0, 1, 0, "Q0.0   blinks at 1 Hz"},
    {SimulatorArea::SM, 0, 1, 5, "SM0.5  blinks at 1 Hz; SM0.0 is always on"},
    {SimulatorArea::Counter, LiveCounter * 3, 3, -1,
     "C5     counts 0 to 20 at 1 Hz, bit on from 10"},
    {SimulatorArea::Timer, LiveTimer * 5, 5, -1,
     "T37    runs 0 to 100, 1 every 100 ms, bit on from 50"},
};

const AreaShape& shape(SimulatorArea area)
{
    return Shapes[size_t(area)];
}

} // namespace

ControllerMemory::ControllerMemory()
{
    for (size_t i = 0; i < m_areas.size(); ++i)
        m_areas[i] = QByteArray(size(SimulatorArea(i)), '\0');
    m_areas[size_t(SimulatorArea::SM)][0] = 0x01; // SM0.0 is always on
}

int ControllerMemory::size(SimulatorArea area)
{
    return shape(area).elements * shape(area).elementSize;
}

int ControllerMemory::elementSize(SimulatorArea area)
{
    return shape(area).elementSize;
}

bool ControllerMemory::contains(SimulatorArea area, int offset, int bytes)
{
    return offset >= 0 && bytes >= 1 && bytes <= size(area) && offset <= size(area) - bytes;
}

bool ControllerMemory::isWritable(SimulatorArea area, int offset)
{
    if (area == SimulatorArea::SM)
        return offset >= FirstWritableSpecialByte;
    return area != SimulatorArea::I && area != SimulatorArea::AIW;
}

QByteArray ControllerMemory::read(SimulatorArea area, int offset, int bytes) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const QByteArray& from = m_areas[size_t(area)];
    QByteArray result(std::max(bytes, 0), '\0');
    const int end = int(std::min<qint64>(qint64(offset) + bytes, from.size()));
    const int begin = std::max(offset, 0);
    if (begin < end)
        std::copy(from.begin() + begin, from.begin() + end, result.begin() + (begin - offset));
    return result;
}

void ControllerMemory::write(SimulatorArea area, int offset, const QByteArray& bytes)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    stopLiveValues(area, offset, int(bytes.size()), -1);
    QByteArray& to = m_areas[size_t(area)];
    const int end = int(std::min<qint64>(qint64(offset) + bytes.size(), to.size()));
    const int begin = std::max(offset, 0);
    if (begin < end)
        std::copy(bytes.begin() + (begin - offset), bytes.begin() + (end - offset),
                  to.begin() + begin);
}

void ControllerMemory::writeBit(SimulatorArea area, int offset, int bit, bool on)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!contains(area, offset, 1) || bit < 0 || bit > 7)
        return;
    stopLiveValues(area, offset, 1, bit);
    setBit(area, offset, bit, on);
}

void ControllerMemory::writeValue(SimulatorArea area, int number, int value)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (number < 0 || number >= shape(area).elements)
        return;
    const int size = elementSize(area);
    stopLiveValues(area, number * size, size, -1);
    setWord(area, (number + 1) * size - 2, value);
}

QStringList ControllerMemory::liveValues()
{
    QStringList lines;
    for (const LivePlace& place : LivePlaces)
        lines.append(QLatin1String(place.text));
    return lines;
}

void ControllerMemory::tick()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_ticks;
    const quint32 phase = m_ticks % (2 * RampTop);
    const int ramp = int(phase <= RampTop ? phase : 2 * RampTop - phase);
    const bool blink = m_ticks / HalfBlink % 2 == 1;
    if (moves(Count))
        setWord(SimulatorArea::V, 0, word(SimulatorArea::V, 0) + 1);
    if (moves(Ramp))
        setWord(SimulatorArea::V, 2, ramp * 10);
    if (moves(Real)) {
        const float real = 20.0F + float(ramp) / 10.0F;
        quint32 realBits;
        std::memcpy(&realBits, &real, sizeof realBits);
        setWord(SimulatorArea::V, 4, int(realBits >> 16));
        setWord(SimulatorArea::V, 6, int(realBits & 0xFFFF));
    }
    if (moves(AnalogRamp))
        setWord(SimulatorArea::AIW, 0, ramp * 320);
    if (moves(Lamp))
        setBit(SimulatorArea::Q, 0, 0, blink);
    if (moves(ClockBit))
        setBit(SimulatorArea::SM, 0, 5, blink);
    if (moves(Timer))
        tickTimer();
    if (moves(Counter) && m_ticks % (2 * HalfBlink) == 0)
        tickCounter();
}

void ControllerMemory::tickTimer()
{
    const int offset = LivePlaces[Timer].offset;
    const int time = (word(SimulatorArea::Timer, offset + 3) + 1) % (LiveTimerEnd + 1);
    setWord(SimulatorArea::Timer, offset + 3, time);
    m_areas[size_t(SimulatorArea::Timer)][offset] = time >= LiveTimerPreset ? TimerBitOn : '\0';
}

void ControllerMemory::tickCounter()
{
    const int offset = LivePlaces[Counter].offset;
    const int count = (word(SimulatorArea::Counter, offset + 1) + 1) % (LiveCounterEnd + 1);
    setWord(SimulatorArea::Counter, offset + 1, count);
    m_areas[size_t(SimulatorArea::Counter)][offset] =
        count >= LiveCounterPreset ? CounterBitOn : '\0';
}

bool ControllerMemory::moves(LiveValue value) const
{
    return !m_stopped[value];
}

void ControllerMemory::stopLiveValues(SimulatorArea area, int offset, int bytes, int bit)
{
    for (size_t i = 0; i < m_stopped.size(); ++i) {
        const LivePlace& place = LivePlaces[i];
        const bool overlaps = place.area == area && place.offset < qint64(offset) + bytes &&
                              offset < place.offset + place.bytes;
        if (overlaps && (bit < 0 || place.bit < 0 || bit == place.bit))
            m_stopped[i] = true;
    }
}

void ControllerMemory::setBit(SimulatorArea area, int offset, int bit, bool on)
{
    QByteArray& to = m_areas[size_t(area)];
    const int mask = 1 << bit;
    to[offset] = char(on ? to.at(offset) | mask : to.at(offset) & ~mask);
}

int ControllerMemory::word(SimulatorArea area, int offset) const
{
    return qFromBigEndian<quint16>(m_areas[size_t(area)].constData() + offset);
}

void ControllerMemory::setWord(SimulatorArea area, int offset, int value)
{
    qToBigEndian(quint16(value), m_areas[size_t(area)].data() + offset);
}

} // namespace s7200::sim
