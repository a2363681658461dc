#ifndef WIRE_TPKT_REASSEMBLER_H
#define WIRE_TPKT_REASSEMBLER_H

#include "wire/byte_queue.h"

#include <QByteArray>

#include <optional>

namespace s7200::wire
{

/// Cuts a TCP byte stream into TPKTs (RFC 1006, section 6): version 3, a reserved byte, then the
/// length of the whole packet, 7 to 65535, most significant byte first.
///
/// Memory is bounded whatever the peer sends: what does not start a TPKT, or more than
/// MaxBufferedBytes that nobody took, breaks the stream and is dropped. A frame costs the same
/// however many wait behind it.
class TpktReassembler
{
public:
    static constexpr int MaxBufferedBytes = 256 * 1024;

    /// `trailingBytes` follow each TPKT beyond its declared length: 2 on a remote-access link,
    /// otherwise 0.
    explicit TpktReassembler(int trailingBytes = 0);

    /// Adds received bytes. Ignored once the stream is broken.
    void append(const QByteArray& bytes);

    /// The oldest complete frame, trailing bytes included, which is then forgotten. Nothing when
    /// none is complete.
    std::optional<QByteArray> takeFrame();

    /// True once the stream cannot be followed any more: a wrong version byte or a length below 7
    /// where a TPKT should start. No more frames come until clear().
    bool isBroken() const;

    /// True while bytes wait that do not make a whole frame yet.
    bool isMidFrame() const;

    /// Forgets all bytes, for a new connection or to drop stale input.
    void clear();

private:
    void checkHead();
    int headLength() const;
    void breakOff();

    ByteQueue m_waiting;
    int m_trailing;
    bool m_broken = false;
};

} // namespace s7200::wire

#endif
