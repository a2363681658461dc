#include "image/extend_values.h"

#include "core/register_properties.h"
#include "image/extend_list.h"
#include "image/host_bytes.h"

namespace cp243
{

namespace
{

/// Double words beyond this many words are not padded for: no area has as many.
constexpr int MostPaddedWords = 0x10000;

/// The stored elements of one kind at one station, as the host's value read sees them.
class ExtendReader
{
public:
    ExtendReader(QByteArray& out, int station, int keyType, qint64 address)
        : m_out(out), m_elements(station, keyType), m_address(address)
    {
    }

    void bits(int count, int most = MostExtendBits)
    {
        const qint64 inside = 8 * qint64(ExtendAddressEnd) - m_address;
        const qint64 end = qMin(inside, qint64(qMin(count, most)));
        char* out = room(end);
        for (qint64 i = 0; i < end; ++i) {
            const qint64 bit = m_address + i;
            out[i] = char((m_elements.byteAt(bit / 8) >> (bit % 8)) & 1);
        }
    }

    /// Two bytes per byte: the byte, then 0.
    void widenedBytes(int count)
    {
        const qint64 end = inside(count, 1);
        char* out = room(2 * end);
        for (qint64 i = 0; i < end; ++i) {
            out[2 * i] = m_elements.byteAt(m_address + i);
            out[2 * i + 1] = '\0';
        }
    }

    /// Elements of `width` bytes, most significant first in the list.
    void elements(qint64 count, int width)
    {
        const qint64 end = inside(count, width);
        char* out = room(end * width);
        for (qint64 i = 0; i < end; ++i) {
            const qint64 last = m_address + (i + 1) * width - 1;
            for (int k = 0; k < width; ++k)
                *out++ = m_elements.byteAt(last - k);
        }
    }

    void doubleWords(int count)
    {
        if (count >= 2) {
            elements(count / 2, 4);
        } else if (isExtendAddress(m_address + 3)) {
            char* out = room(2);
            out[0] = m_elements.byteAt(m_address + 3);
            out[1] = m_elements.byteAt(m_address + 2);
        }
    }

    /// Timer and counter values; an element that holds fewer than two bytes gives zeros.
    void values(int count)
    {
        const qint64 end = inside(count, 1);
        char* out = room(2 * end);
        for (qint64 k = 0; k < end; ++k) {
            const QByteArray& value = *m_elements.value(m_address + k);
            const bool whole = value.size() >= 2;
            out[2 * k] = whole ? value.at(0) : '\0';
            out[2 * k + 1] = whole ? value.at(1) : '\0';
        }
    }

private:
    /// Of `count` elements of `width` bytes, those whose addresses can be named.
    qint64 inside(qint64 count, int width) const
    {
        const qint64 nameable = (ExtendAddressEnd - m_address) / width;
        return qMin(qMin(count, nameable), qint64(MostExtendElements / width));
    }

    /// The output's bytes once it holds `size`; none are asked for where nothing is written.
    char* room(qint64 size)
    {
        return size > 0 ? grown(m_out, size) : nullptr;
    }

    QByteArray& m_out;
    const ExtendElements m_elements;
    qint64 m_address; ///< Never negative.
};

void extendBits(const RW_VAR& var, const ExtendElements& stored)
{
    const int end = qMin(qMin(var.count, int(var.value.size())), MostExtendBits);
    for (int i = 0; i < end; ++i) {
        const qint64 bit = qint64(var.address) + i;
        if (bit < 0)
            continue;
        const unsigned mask = 1u << (bit % 8);
        const unsigned before = static_cast<unsigned char>(stored.byteAt(bit / 8));
        stored.setByte(bit / 8, char(var.value.at(i) == 1 ? before | mask : before & ~mask));
    }
}

void extendWords(const RW_VAR& var, const ExtendElements& stored)
{
    // The limit is twice the word count, so a value longer than the count is stored beyond it.
    // Deliberate: docs/oddities.md, Several stations.
    const qint64 pairs = qMin(2 * qint64(var.count), qint64(var.value.size() / 2));
    const qint64 end = qMin(pairs, qint64(MostExtendElements / 2));
    for (qint64 j = 0; j < end; ++j) {
        const char* pair = var.value.constData() + 2 * j;
        stored.setByte(var.address + 2 * j, pair[1]);
        stored.setByte(var.address + 2 * j + 1, pair[0]);
    }
}

void extendVBytes(const RW_VAR& var, const ExtendElements& stored)
{
    // The low byte of each two-byte element, where the image takes the bytes as they stand; 0 for
    // an element that a short value lacks while its index is still below the value's size.
    const int end = qMin(qMin(var.count, int(var.value.size())), MostExtendElements);
    for (int i = 0; i < end; ++i) {
        stored.setByte(qint64(var.address) + i, char(inputByte(var.value, 2 * i)));
    }
}

void extendDoubleWords(RW_VAR& var, const ExtendElements& stored)
{
    const qint64 words = qMin(var.count, MostPaddedWords);
    while (var.value.size() <= (words + 1) / 2 * 4)
        var.value.append('\0');
    const qint64 end = qMin(words / 2, qint64(MostExtendElements / 4));
    for (qint64 j = 0; j < end && 4 * j + 3 < var.value.size(); ++j) {
        const char* bytes = var.value.constData() + 4 * j;
        for (int k = 0; k < 4; ++k)
            stored.setByte(var.address + 4 * j + k, bytes[3 - k]);
    }
}

void extendValues(const RW_VAR& var, const ExtendElements& stored)
{
    const int end = qMin(qMin(var.count, int(var.value.size()) / 2), MostExtendElements);
    for (int k = 0; k < end; ++k)
        stored.setPair(qint64(var.address) + k, var.value.at(2 * k), var.value.at(2 * k + 1));
}

} // namespace

void readExtendList(QByteArray& out, int regType, int station, int address, int count)
{
    const RegisterTypeInfo* type = registerTypeInfo(regType);
    // Codes outside the table read as words here, where the image reads nothing. Deliberate:
    // docs/oddities.md, Several stations.
    const int keyType = type ? type->wordType : regType;
    ExtendReader reader(out, station, keyType, address);
    switch (type ? type->width : Width::Word) {
    case Width::Bit:
        reader.bits(count);
        break;
    case Width::Byte:
        reader.widenedBytes(count);
        break;
    case Width::Word:
    case Width::AnalogWord:
        reader.elements(count, 2);
        break;
    case Width::DoubleWord:
        reader.doubleWords(count);
        break;
    case Width::TimerBit:
    case Width::CounterBit:
        // The bits do not end the read: the values go over them, two bytes each. Deliberate:
        // docs/oddities.md, Several stations.
        reader.bits(count, MostExtendElements);
        reader.values(count);
        break;
    case Width::Timer:
    case Width::Counter:
        reader.values(count);
        break;
    }
}

void writeExtendList(RW_VAR& var)
{
    const RegisterTypeInfo* type = registerTypeInfo(var.reg_type);
    const ExtendElements stored(var.station, type ? type->wordType : var.reg_type);
    const ExtendElements ownCode(var.station, var.reg_type);
    switch (type ? type->width : Width::Word) {
    case Width::Bit:
        extendBits(var, stored);
        break;
    case Width::Byte:
        extendVBytes(var, stored);
        break;
    case Width::DoubleWord:
        // An ID goes with the words, under its own code. An SMD is kept under its own code too,
        // where no read looks for it. Deliberate: docs/oddities.md, Several stations.
        if (var.reg_type == Type_ID)
            extendWords(var, ownCode);
        else
            extendDoubleWords(var, var.reg_type == Type_SMD ? ownCode : stored);
        break;
    case Width::Timer:
    case Width::Counter:
        extendValues(var, stored);
        break;
    case Width::Word:
    case Width::AnalogWord:
    case Width::TimerBit:
    case Width::CounterBit:
        extendWords(var, stored);
        break;
    }
}

} // namespace cp243
