#ifndef WIRE_FRAME_TRACE_H
#define WIRE_FRAME_TRACE_H

#include <QByteArray>
#include <QHostAddress>
#include <QString>

#include <map>
#include <memory>
#include <mutex>

namespace s7200::wire
{

/// One end of a TCP connection.
struct TcpEnd {
    QHostAddress address; ///< Null: unknown.
    quint16 port = 0;     ///< 0: unknown.
};

/// Writes what passes on the wire in both directions: either a capture file that packet analysers
/// open as it is (pcap, raw IPv4 and IPv6), or hex lines with time, connection and direction on
/// standard error.
///
/// All functions may be called from any thread. Every record is flushed, so that the file of a
/// killed program can be read.
class FrameTrace
{
public:
    enum Direction { ToController, FromController };
    enum Existing { KeepExisting, ReplaceExisting };

    /// Opens `fileOrDash`, "-" meaning hex lines. Null with a one-line `error` if that fails, and
    /// for a file that holds something already unless it may be replaced. A disk that is full
    /// already shows in error() at once.
    static std::unique_ptr<FrameTrace> open(const QString& fileOrDash, Existing existing,
                                            QString* error);
    ~FrameTrace();

    /// Starts a connection with sequence numbers of its own; the file gets its SYN handshake. An
    /// end that is not known gets an address reserved for documentation (RFC 5737, RFC 3849),
    /// and a port of its own. Returns the connection's id, 0 for the first.
    int newConnection(const TcpEnd& client = {}, const TcpEnd& controller = {});

    /// Records an attempt to connect that came to nothing.
    void failedConnection(const TcpEnd& controller);

    /// Adds bytes as they were sent or received; an id that is not open is ignored.
    void record(int connection, Direction direction, const QByteArray& bytes);

    /// Ends a connection: `by` names the side that sent the last bytes.
    void closeConnection(int connection, Direction by);

    /// Why nothing more is recorded, as when the disk is full; empty while all is well. What was
    /// recorded until then can be read.
    QString error() const;

private:
    struct Connection {
        TcpEnd end[2];                    ///< Who sends, by Direction.
        quint32 nextSequence[2] = {0, 0}; ///< By Direction.
    };

    FrameTrace(int descriptor, const QString& name);
    Q_DISABLE_COPY(FrameTrace)

    Connection& addConnection(const TcpEnd& client, const TcpEnd& controller);
    void writeSegment(Connection& state, Direction direction, quint8 flags,
                      const QByteArray& bytes = {});
    void writeHexLine(int connection, const QByteArray& text);
    void writeRecord(const QByteArray& bytes);

    mutable std::mutex m_mutex;
    const int m_descriptor;
    const bool m_hexLines; ///< On standard error, in place of a capture file.
    const QString m_fileName;
    QString m_error;
    qint64 m_wholeBytes = 0; ///< Up to the end of the last whole record.
    int m_nextId = 0;
    std::map<int, Connection> m_connections;
};

} // namespace s7200::wire

#endif
