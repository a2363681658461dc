#ifndef FUZZ_SUPPORT_H
#define FUZZ_SUPPORT_H

/// What every fuzz target needs: reading its input as numbers, and failing loudly.

#include <QByteArray>
#include <QtGlobal>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>

/// Ends the run with a message if an invariant does not hold; libFuzzer then keeps the input.
inline void require(bool holds, const char* invariant)
{
    if (holds)
        return;
    std::fprintf(stderr, "invariant broken: %s\n", invariant);
    std::abort();
}

/// Takes an input apart from its front. Past the end every number is 0, so a short input is a
/// short story and no byte goes unused.
class ByteSource
{
public:
    ByteSource(const std::uint8_t* data, std::size_t size)
        : m_data(reinterpret_cast<const char*>(data)), m_left(int(size))
    {
    }

    bool isEmpty() const
    {
        return m_left == 0;
    }

    int byte()
    {
        if (m_left == 0)
            return 0;
        --m_left;
        return uchar(*m_data++);
    }

    bool flag()
    {
        return (byte() & 1) != 0;
    }

    /// 0 to `end` - 1; `end` at most 256.
    int below(int end)
    {
        return byte() % end;
    }

    int word()
    {
        const int high = byte();
        return (high << 8) | byte();
    }

    /// Any 32-bit number, the absurd ones within easy reach: a first byte below 0xC0 is the number
    /// itself, the others choose one of a table or announce two or four bytes.
    int number()
    {
        constexpr int Max = std::numeric_limits<int>::max();
        constexpr int Min = std::numeric_limits<int>::min();
        static const int Absurd[] = {
            -1,        -2,    Max,    Max - 1,       Min,        Min + 1,    -26,
            -35,       -36,   0xFFFF, 0x10000,       65510,      1 << 21,    1 << 24,
            268435456, 10239, 10240,  4096,          81920,      1023,       1024,
            1025,      255,   256,    (1 << 21) - 1, 2000000000, -2000000000};
        constexpr int AbsurdCount = int(sizeof Absurd / sizeof Absurd[0]);
        constexpr int FirstAbsurd = 0xC0;
        const int first = byte();
        if (first < FirstAbsurd)
            return first;
        if (first < FirstAbsurd + AbsurdCount)
            return Absurd[first - FirstAbsurd];
        if (first < 0xF0)
            return word();
        const quint32 high = quint32(word());
        return int((high << 16) | quint32(word()));
    }

    QByteArray bytes(int count)
    {
        const int taken = qBound(0, count, m_left);
        const QByteArray result(m_data, taken);
        m_data += taken;
        m_left -= taken;
        return result;
    }

    QByteArray rest()
    {
        return bytes(m_left);
    }

private:
    const char* m_data;
    int m_left;
};

#endif
