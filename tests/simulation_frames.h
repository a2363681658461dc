#ifndef TESTS_SIMULATION_FRAMES_H
#define TESTS_SIMULATION_FRAMES_H

#include "simulator/controller_memory.h"

#include <s7200host/variable.h>

#include <QByteArray>

namespace s7200::simulation
{

using Area = sim::SimulatorArea;

/// Bytes of one area of one controller, as the controller counts them: five to a timer, three to a
/// counter.
struct Span {
    Area area = Area::V;
    int first = 0;
    int bytes = 0;

    bool covers(const Span& other) const
    {
        return area == other.area && first <= other.first &&
               first + bytes >= other.first + other.bytes;
    }
    bool overlaps(const Span& other) const
    {
        return area == other.area && first < other.first + other.bytes &&
               other.first < first + bytes;
    }
};

/// What a frame asks a controller for, read from its bytes.
struct Asked {
    enum Kind { Nothing, Connect, Setup, Read, Write };
    Kind kind = Nothing;
    Span span;
    int bit = -1;    ///< Of a write of one bit.
    QByteArray data; ///< Of a write: as the controller keeps it; of one bit: 0 or 1.
    int payload = 0; ///< Bytes that the reply to a read carries.
    quint16 reference = 0;
    QByteArray parameters; ///< Of a connection request.
};

/// Of an S7 job or a connection request; or of a forwarding record.
Asked asked(const QByteArray& frame, bool remote);

/// Where an element of a variable lies, bit and all.
struct Element {
    Span span;
    int bit = -1;
};
Element elementOf(const Variable& variable, int number);

/// What the bytes of that element mean, right-aligned.
quint32 elementValue(const Variable& variable, const Element& element, const QByteArray& bytes);

/// All of it; `widened`: to whole words, as it is read.
Span spanOf(const Variable& variable, bool widened = false);

/// The bytes of a written variable as the controller keeps them, of a timer or counter with its
/// status as 0x00; of bits one byte each.
QByteArray bytesOfValues(const Variable& variable, const QVector<quint32>& values);

} // namespace s7200::simulation

#endif
