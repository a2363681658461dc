// The panel's two ways in: bytes from the network, cut into TPKTs, and the texts that name
// variables. The first byte chooses.

#include "fuzz/support.h"
#include "tests/driver_fixture.h"
#include "wire/tpkt_reassembler.h"
#include <s7200host/variable.h>
#include <siemens_s7_200_cp243/host_interface.h>

#include <QList>
#include <QVector>

using namespace s7200;
using namespace s7200::wire;

namespace
{

// TPKT reassembly

/// What a stream holds, cut in the plainest way.
struct Cut {
    QList<QByteArray> frames;
    bool broken = false;
    bool midFrame = false;
};

bool operator==(const Cut& a, const Cut& b)
{
    return a.frames == b.frames && a.broken == b.broken && a.midFrame == b.midFrame;
}

Cut expectedCut(const QByteArray& stream, int trailing)
{
    Cut cut;
    int at = 0;
    while (at < int(stream.size())) {
        const int left = int(stream.size()) - at;
        const int length = left < 4 ? 7 : uchar(stream.at(at + 2)) * 256 + uchar(stream.at(at + 3));
        cut.broken = stream.at(at) != 3 || length < 7;
        cut.midFrame = !cut.broken && (left < 4 || left < length + trailing);
        if (cut.broken || cut.midFrame)
            break;
        cut.frames.append(stream.mid(at, length + trailing));
        at += length + trailing;
    }
    return cut;
}

template <typename NextLength>
Cut cutInSegments(const QByteArray& stream, int trailing, NextLength nextLength)
{
    TpktReassembler reassembler(trailing);
    Cut cut;
    int from = 0;
    while (from < int(stream.size())) {
        const int length = qMax(1, nextLength());
        reassembler.append(stream.mid(from, length));
        from += length;
        while (const auto frame = reassembler.takeFrame())
            cut.frames.append(*frame);
    }
    cut.broken = reassembler.isBroken();
    cut.midFrame = reassembler.isMidFrame();
    return cut;
}

/// Packets of any length up to 4 KB, right or wrong.
QByteArray streamOf(ByteSource& source)
{
    QByteArray stream;
    const int packets = source.below(8);
    for (int i = 0; i < packets; ++i) {
        const int length = source.flag() ? source.word() & 0x0FFF : source.byte();
        QByteArray packet("\x03\0", 2);
        packet.append(char(length >> 8));
        packet.append(char(length));
        stream += packet.leftJustified(length, char(source.byte()));
    }
    return stream;
}

void reassemble(ByteSource& source)
{
    const int trailing = source.below(3);
    QByteArray stream = streamOf(source);
    const QByteArray segments = source.bytes(source.byte());
    stream += source.rest();

    const Cut expected = expectedCut(stream, trailing);
    int next = 0;
    const auto chosen = [&] {
        return segments.isEmpty() ? 1 : int(uchar(segments.at(next++ % int(segments.size()))));
    };
    require(cutInSegments(stream, trailing, [&] { return int(stream.size()); }) == expected,
            "a stream in one piece gives its frames");
    require(cutInSegments(stream, trailing, chosen) == expected,
            "a stream in any pieces gives the same frames");
}

/// Bytes that nobody takes break the stream before they fill memory.
void overfill(ByteSource& source)
{
    TpktReassembler reassembler(source.below(3));
    const QByteArray packet = QByteArray("\x03\0\xFF\xFF", 4).leftJustified(0xFFFF, '\x03');
    qint64 held = 0;
    for (int i = 0; i < 6; ++i) {
        const QByteArray segment = packet.left(1 + source.word());
        reassembler.append(segment);
        held += segment.size();
        if (!reassembler.isBroken())
            require(held <= TpktReassembler::MaxBufferedBytes, "what waits is bounded");
    }
    reassembler.clear();
    require(!reassembler.isBroken() && !reassembler.isMidFrame(), "clear() starts afresh");
}

// Variables

void requireMessage(const QString& error)
{
    require(!error.isEmpty() && error.size() < 500 && !error.contains(QLatin1Char('\n')),
            "a text that is no variable is explained in a line");
}

/// Bytes of the host's encoding for each element.
int hostBytes(const Variable& variable)
{
    if (variable.isByteOfBits())
        return 8;
    switch (variable.area->width) {
    case Width::Bit:
        return 1;
    case Width::DoubleWord:
        return 4;
    default:
        return 2;
    }
}

void checkVariable(const Variable& variable)
{
    require(variable.area && variable.repeat >= 1 && variable.bit >= 0 && variable.bit <= 7,
            "a variable has an area, elements and a bit of a byte");
    require(variable.station >= -1 && variable.station <= 255,
            "and a station that exists, or none");
    require(variable.firstUnit() >= 0 && variable.firstUnit() < variable.endUnit() &&
                variable.endUnit() <= variable.area->size,
            "a variable lies inside its area");

    Variable again;
    QString error;
    require(parseVariable(variable.label(), &again, &error), "a label names a variable");
    require(again.area == variable.area && again.address == variable.address &&
                again.bit == variable.bit && again.repeat == variable.repeat &&
                again.station == variable.station,
            "the same one");
}

/// What the panel hands to the driver names exactly the variable's elements.
void checkDriverValue(const Variable& variable)
{
    static DriverFixture fixture;
    static const bool ready = (fixture.reset(), true);
    Q_UNUSED(ready);
    QByteArray data;
    require(GetRegisterData(QString(), variable.area->type, variable.driverAddress(), 2, data,
                            variable.driverCount()) == 1,
            "the driver knows the address");
    // Timer and counter bits take one byte each, whatever the variable's number.
    require(data.size() == hostBytes(variable) * variable.repeat,
            "the driver's value has all elements");
    const QVector<quint32> values = decodeValues(variable, data);
    require(int(values.size()) == variable.repeat, "one number for each element");
    require(formatValues(variable, values).count(QLatin1Char(' ')) == variable.repeat - 1,
            "shown with blanks between them");
}

void checkAssignment(const QString& text)
{
    Variable variable;
    QVector<quint32> values;
    QString error;
    if (!parseAssignment(text, &variable, &values, &error)) {
        requireMessage(error);
        return;
    }
    checkVariable(variable);
    require(variable.area->writable, "only what can be written is assigned to");
    require(int(values.size()) == variable.repeat, "one value for each element");
    const int bits = variable.area->width == Width::Bit    ? 1
                     : variable.area->width == Width::Byte ? 8
                     : hostBytes(variable) == 4            ? 32
                                                           : 16;
    for (quint32 value : std::as_const(values))
        require(quint64(value) >> bits == 0, "a value fits its element");
}

/// A text with the parts of a variable, some of them wrong.
QString assembledText(ByteSource& source)
{
    static const char* const Names[] = {"I",   "Q",  "M",   "SM",  "V", "IB", "VB", "sw", "VW",
                                        "smd", "VD", "AIW", "aqw", "T", "C",  "TV", "CV", "ID"};
    QString text = QLatin1String(Names[source.below(18)]) + QString::number(source.number());
    const int parts = source.byte();
    if ((parts & 1) != 0)
        text += QLatin1Char('.') + QString::number(source.below(9));
    if ((parts & 2) != 0)
        text += QLatin1Char('x') + QString::number(source.number());
    if ((parts & 4) != 0)
        text += QLatin1Char('@') + QString::number(source.number());
    if ((parts & 8) != 0)
        text += QLatin1Char('/') + QLatin1String(&"ushbfz"[source.below(6)], 1);
    if ((parts & 16) != 0) {
        const QString value = QLatin1Char(',') + QString::number(source.number());
        text += QLatin1Char('=') + value.repeated(source.below(8)).mid(1);
    }
    return text;
}

void parse(const QString& text)
{
    Variable variable;
    QString error;
    if (parseVariable(text, &variable, &error)) {
        checkVariable(variable);
        checkDriverValue(variable);
    } else {
        requireMessage(error);
    }
    checkAssignment(text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    ByteSource source(data, size);
    const int way = source.below(16);
    if (way < 5)
        reassemble(source);
    else if (way == 5)
        overfill(source);
    else if (way < 10)
        parse(assembledText(source));
    else
        parse(QString::fromUtf8(source.rest()));
    return 0;
}
