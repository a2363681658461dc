#ifndef WIRE_FRAME_TRACE_H
#define WIRE_FRAME_TRACE_H

#include <QByteArray>
#include <QString>

#include <cstdio>
#include <memory>
#include <mutex>
#include <vector>

namespace s7200::wire
{

/// Writes what passes on the wire in both directions: either a capture file that packet analysers
/// open as it is (pcap, raw IPv4, the controller on TCP port 102), or hex lines with time,
/// connection and direction on standard error.
///
/// All functions may be called from any thread. Every record is flushed, so that the file of a
/// killed program can be read.
class FrameTrace
{
public:
    enum Direction { ToController, FromController };

    /// Opens `fileOrDash`, "-" meaning hex lines. Null with a one-line `error` if that fails.
    static std::unique_ptr<FrameTrace> open(const QString& fileOrDash, QString* error);
    ~FrameTrace();

    /// Starts a connection with a client port and sequence numbers of its own; the file gets its
    /// SYN handshake. Returns its id, 0 for the first.
    int newConnection();

    /// Adds bytes as they were sent or received; an id that newConnection() did not give is
    /// ignored.
    void record(int connection, Direction direction, const QByteArray& bytes);

private:
    /// Next sequence number of each side, by Direction.
    struct Connection {
        quint32 nextSequence[2] = {0, 0};
    };

    explicit FrameTrace(std::FILE* captureFile);
    Q_DISABLE_COPY(FrameTrace)

    void writeSegment(int connection, Direction direction, quint8 flags, const QByteArray& bytes);
    void writeHexLine(int connection, Direction direction, const QByteArray& bytes);

    std::mutex mutex;
    std::FILE* file; ///< Null: hex lines on standard error.
    std::vector<Connection> connections;
};

} // namespace s7200::wire

#endif
