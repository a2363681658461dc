#ifndef WIRE_CAPTURE_READER_H
#define WIRE_CAPTURE_READER_H

#include "wire/frame_trace.h"

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QVector>

#include <memory>
#include <optional>

namespace s7200::wire
{

/// A TCP segment (RFC 9293) of a capture.
struct CapturedSegment {
    qint64 number = 0; ///< Of its frame in the file, from 1, as packet analysers count.
    qint64 timeUs = 0; ///< Since 1970-01-01 UTC.
    TcpEnd from;
    TcpEnd to;
    quint32 sequence = 0;
    bool syn = false;
    bool ack = false;
    bool fin = false;
    bool reset = false;
    QByteArray bytes;
};

/// Reads the TCP segments of a capture file: pcap or pcapng of either byte order, times in
/// microseconds or nanoseconds, frames of Ethernet (with VLAN tags), loopback, "any" interface or
/// raw IP. Whatever else is in the file is passed over.
///
/// Nothing in a damaged file makes it read or allocate more than a bounded amount.
class CaptureReader
{
public:
    /// Null with a one-line `error` if the file cannot be read or is no capture.
    static std::unique_ptr<CaptureReader> open(const QString& fileName, QString* error);

    /// The next TCP segment; nothing at the end of the file or of its readable part.
    std::optional<CapturedSegment> next();

    /// Why reading ended before the end of the file; empty if it did not.
    QString error() const;

    /// Frames of which only the beginning was captured, so far.
    qint64 cutFrames() const;

private:
    struct Interface {
        int linkType = 0;
        qint64 ticksPerSecond = 1000000;
    };
    struct Frame {
        int linkType = 0;
        qint64 timeUs = 0;
        QByteArray bytes;
    };

    CaptureReader() = default;
    bool readFileHeader();
    std::optional<Frame> nextFrame();
    std::optional<Frame> nextRecord();
    std::optional<Frame> nextBlock();
    bool startSection();
    void addInterface(const QByteArray& block);
    std::optional<Frame> packetOf(quint32 blockType, const QByteArray& block);
    QByteArray take(qint64 length);
    quint32 word(const QByteArray& bytes, int offset) const;
    quint16 halfWord(const QByteArray& bytes, int offset) const;

    QFile m_file;
    bool m_blocks = false; ///< pcapng.
    bool m_bigEndian = false;
    QVector<Interface> m_interfaces; ///< One in a pcap file.
    qint64 m_frameNumber = 0;
    qint64 m_cutFrames = 0;
    QString m_error;
};

} // namespace s7200::wire

#endif
