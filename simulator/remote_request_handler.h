#ifndef SIMULATOR_REMOTE_REQUEST_HANDLER_H
#define SIMULATOR_REMOTE_REQUEST_HANDLER_H

#include "simulator/controller_memory.h"
#include "simulator/request_handler.h"
#include "simulator/s7_replies.h"
#include "wire/byte_queue.h"

namespace s7200::sim
{

/// Answers one connection's forwarding records of remote access: 21 bytes that name a request,
/// the value bytes of a write, and an additive checksum, the length of all that in the first byte.
///
/// Replies are laid out as S7 replies, but two bytes longer than their TPKT length says. Their PDU
/// reference counts the good replies of the connection from 0 on and skips 0 when it wraps.
///
/// The length byte holds the low 8 bits only, so a record with more than 233 value bytes cannot be
/// told from a shorter one. Like any record with a wrong length or checksum it is refused with a
/// short reply, and all bytes received so far are dropped: the client repeats its record.
class RemoteRequestHandler : public RequestHandler
{
public:
    /// Bytes that follow each reply beyond its TPKT length.
    static constexpr int TrailingBytes = 2;

    /// `memory` must outlive the handler. What would not fit a PDU of `largestPdu` bytes between
    /// peer and controller is refused: the record's own length is no measure of it.
    explicit RemoteRequestHandler(ControllerMemory* memory, int largestPdu = 240);

    void append(const QByteArray& bytes) override;
    std::optional<QByteArray> takeRequest() override;
    bool isBroken() const override;
    bool isServing() const override;
    RequestSummary parse(const QByteArray& request) override;
    QByteArray answer(Refusal refusal) override;
    QString description() const override;
    void replySpoiled() override;

private:
    struct Record {
        bool valid = false;
        bool isWrite = false;
        int registerType = 0;
        qint32 address = 0;
        int count = 0;
        QByteArray value; ///< As the host encodes it, least significant byte first.
    };

    static Record parseRecord(const QByteArray& bytes);
    static MemoryRange touchedBy(const Record& record);
    int pduLength() const;
    QByteArray refuse(JobError error);
    QByteArray read(Refusal refusal);
    QByteArray write(Refusal refusal);
    ItemCode store();
    ItemCode storeElements(SimulatorArea area);
    ItemCode storeBits(SimulatorArea area);

    ControllerMemory* m_memory;
    int m_largestPdu;
    wire::ByteQueue m_waiting;
    Record m_current;
    quint16 m_reference = 0;
    quint16 m_lastReference = 0; ///< Of the reply just made.
    ItemCode m_itemCode = ItemCode::Success;
    JobError m_jobError = JobError::None;
};

} // namespace s7200::sim

#endif
