#ifndef WIRE_BYTE_QUEUE_H
#define WIRE_BYTE_QUEUE_H

#include <QByteArray>

namespace s7200::wire
{

/// Bytes that come in parts at one end and are taken in others at the front. Each byte costs the
/// same however many wait: what is left is moved only once at least as much has been taken.
class ByteQueue
{
public:
    void append(const QByteArray& bytes)
    {
        if (m_taken > 0 && m_taken >= size()) {
            m_moved += size();
            m_bytes.remove(0, m_taken);
            m_taken = 0;
        }
        m_bytes.append(bytes);
    }

    /// Takes the first `count` bytes, of those that there are.
    QByteArray take(int count)
    {
        const QByteArray first = m_bytes.mid(m_taken, count);
        m_taken += int(first.size());
        if (isEmpty())
            clear(); // one packet at a time, the usual case, is never copied
        return first;
    }

    void clear()
    {
        m_bytes.clear();
        m_taken = 0;
    }

    int size() const
    {
        return int(m_bytes.size()) - m_taken;
    }

    bool isEmpty() const
    {
        return size() == 0;
    }

    /// 0x00 behind the end.
    quint8 at(int index) const
    {
        return index < size() ? quint8(m_bytes.at(m_taken + index)) : quint8(0);
    }

    /// Bytes moved within the buffer since construction: the cost beyond copying in and out.
    qint64 movedBytes() const
    {
        return m_moved;
    }

private:
    QByteArray m_bytes; ///< The first m_taken are taken already.
    int m_taken = 0;
    qint64 m_moved = 0;
};

} // namespace s7200::wire

#endif
