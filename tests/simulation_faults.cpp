#include "tests/simulation_faults.h"

#include "wire/s7_fields.h"

namespace s7200::simulation
{

namespace
{

enum DecisionKind : quint64 { KindOfRun = 100, RateOfRun, Struck, KindOfStrike };

constexpr Micros WeatherLasts = 7 * 1000 * 1000;

constexpr const char* Names[] = {"none",
                                 "refuse connection",
                                 "swallow connection",
                                 "slow connection",
                                 "silent accept",
                                 "reset at once",
                                 "banner",
                                 "lost request",
                                 "lost reply",
                                 "late reply",
                                 "held request",
                                 "doubled",
                                 "doubled later",
                                 "split",
                                 "empty TPDU first",
                                 "glued",
                                 "truncated",
                                 "truncated, closed",
                                 "garbage",
                                 "disconnect",
                                 "reset before",
                                 "reset after",
                                 "half-close",
                                 "error class",
                                 "item error",
                                 "wrong reference",
                                 "wrong length",
                                 "wrong field"};
static_assert(std::size(Names) == FaultCount, "one name each");

bool canStrike(Fault fault, Chance chance)
{
    switch (chance) {
    case Chance::Accept:
        return fault <= Fault::Banner;
    case Chance::Connect:
        return fault >= Fault::LostRequest && fault < Fault::ErrorClass;
    case Chance::Setup:
        return fault >= Fault::LostRequest && fault <= Fault::ErrorClass;
    default:
        return fault >= Fault::LostRequest;
    }
}

/// A field that every host looks at, whatever it has asked for.
QByteArray withWrongField(QByteArray reply, int number)
{
    static constexpr struct {
        int offset;
        int bits;
    } Fields[] = {
        {wire::CotpLengthOffset, 0x04},  {wire::EndOfTpduOffset, 0x80},
        {wire::ProtocolIdOffset, 0x01},  {wire::RosctrOffset, 0x04},
        {wire::RosctrOffset + 1, 0x10},  {wire::ParameterLengthOffset + 1, 0x04},
        {wire::AckFunctionOffset, 0x08}, {wire::AckItemCountOffset, 0x02},
    };
    const auto field = Fields[number % int(std::size(Fields))];
    if (field.offset < reply.size())
        reply[field.offset] = char(reply.at(field.offset) ^ field.bits);
    return reply;
}

/// All its lengths agree, but it is longer or shorter than what was asked for.
QByteArray withOtherLength(QByteArray reply, int number, int trailing)
{
    const bool isRead = wire::byteAt(reply, wire::AckFunctionOffset) == int(wire::Function::Read);
    if (!isRead || reply.size() - trailing < wire::PayloadOffset + 2)
        return reply + QByteArray(1 + number % 5, '\x03');
    const bool longer = number % 2 == 0;
    const QByteArray tail = reply.right(trailing);
    reply.chop(trailing + (longer ? 0 : 2));
    if (longer)
        reply += QByteArray(2, char(number));
    const int payload = int(reply.size()) - wire::PayloadOffset;
    const bool inBits = wire::byteAt(reply, wire::ItemDataSizeOffset) == int(wire::DataSize::Bits);
    const auto setWord = [&reply](int offset, int word) {
        reply[offset] = char(word >> 8);
        reply[offset + 1] = char(word);
    };
    setWord(wire::TpktLengthOffset, int(reply.size()));
    setWord(wire::DataLengthOffset, payload + 4);
    setWord(wire::ItemLengthOffset, inBits ? 8 * payload : payload);
    return reply + tail;
}

} // namespace

const char* describe(Fault fault)
{
    return Names[int(fault)];
}

bool isSpoiling(Fault fault)
{
    return fault == Fault::Garbage || fault == Fault::Disconnect || fault >= Fault::WrongReference;
}

QByteArray spoiled(Fault fault, const QByteArray& reply, int number, bool remote)
{
    QByteArray result = reply;
    switch (fault) {
    case Fault::Garbage:
        return number % 2 == 0 ? QByteArray("SSH-2.0-dropbear\r\n")
                               : QByteArray(1 + number % 30, char(0x40 + number % 64));
    case Fault::Disconnect:
        return QByteArray::fromHex("0300000B06800000000100");
    case Fault::WrongReference: // far from all that are under way
        if (wire::isS7Pdu(reply))
            result[wire::PduReferenceOffset] =
                char(reply.at(wire::PduReferenceOffset) ^ (0x40 + number % 64));
        return result;
    case Fault::WrongLength:
        return withOtherLength(reply, number, remote ? 2 : 0);
    case Fault::WrongField:
        return withWrongField(reply, number);
    default:
        return result;
    }
}

Weather::Weather(const Dice& dice, Micros end) : m_end(end)
{
    for (int kind = 1; kind < FaultCount; ++kind) {
        if (dice.below(3, KindOfRun, quint64(kind)) == 0)
            m_kinds.push_back(Fault(kind));
    }
    static constexpr int Rates[] = {0, 0, 10, 30, 100, 300, 700};
    for (quint64 i = 0; i < 16; ++i)
        m_rates.push_back(Rates[dice.below(int(std::size(Rates)), RateOfRun, i)]);
}

int Weather::perMille(Micros now) const
{
    return now >= m_end ? 0 : m_rates[std::size_t(now / WeatherLasts) % m_rates.size()];
}

quint64 Weather::troubleOf(Chance chance, int station, int number)
{
    return (quint64(station) << 2 | quint64(chance)) << 32 | quint64(number);
}

Fault Weather::strike(Dice& dice, Chance chance, int station, int number, Micros now) const
{
    const quint64 trouble = troubleOf(chance, station, number);
    if (dice.below(1000, Struck, trouble) >= perMille(now))
        return Fault::None;
    std::vector<Fault> possible;
    for (Fault fault : m_kinds) {
        if (canStrike(fault, chance))
            possible.push_back(fault);
    }
    if (possible.empty())
        return Fault::None;
    const Fault fault =
        possible[std::size_t(dice.below(int(possible.size()), KindOfStrike, trouble))];
    return dice.strikes(trouble) ? fault : Fault::None;
}

} // namespace s7200::simulation
