#ifndef SIMULATOR_S7_REQUEST_HANDLER_H
#define SIMULATOR_S7_REQUEST_HANDLER_H

#include "simulator/controller_memory.h"
#include "simulator/request_handler.h"
#include "simulator/s7_replies.h"
#include "simulator/s7_request.h"
#include "wire/tpkt_reassembler.h"

namespace s7200::sim
{

/// Answers one connection's requests as a communication module does: ISO-on-TCP connection
/// (RFC 1006, ISO 8073 class 0), setup communication, then reads and writes of one item.
///
/// A second connection request, a request before the connection, and headers that make no sense
/// break the conversation. S7 jobs that cannot be served get an error reply instead.
class S7RequestHandler : public RequestHandler
{
public:
    /// `memory` must outlive the handler. Setup communication grants at most `largestPdu` bytes.
    /// With a `tsap`, a connection request that calls another is answered by a disconnect request.
    explicit S7RequestHandler(ControllerMemory* memory, int largestPdu = 240,
                              std::optional<quint16> tsap = std::nullopt);

    void append(const QByteArray& bytes) override;
    std::optional<QByteArray> takeRequest() override;
    bool isBroken() const override;
    bool isServing() const override;
    RequestSummary parse(const QByteArray& request) override;
    QByteArray answer(Refusal refusal) override;
    QString description() const override;

private:
    /// Where an item lies in the memory, or why it cannot be served.
    struct Place {
        ItemCode code = ItemCode::Success;
        SimulatorArea area = SimulatorArea::V;
        int offset = 0;
        int bytes = 0;
        int bit = -1; ///< 0 to 7 for a single bit, else -1.
    };

    static Place place(const S7Request& item);
    QByteArray connect();
    QByteArray serveJob(Refusal refusal);
    QByteArray refuseJob(JobError error);
    QByteArray readItem(Refusal refusal);
    ItemCode writeItem();

    ControllerMemory* m_memory;
    int m_largestPdu;
    std::optional<quint16> m_tsap;
    int m_grantedPdu = 0; ///< 0 until setup communication.
    bool m_connected = false;
    bool m_broken = false;
    wire::TpktReassembler m_reassembler;
    S7Request m_current;
    ItemCode m_itemCode = ItemCode::Success; ///< Outcome of the current item
    JobError m_jobError = JobError::None;    ///< and of its job.
};

} // namespace s7200::sim

#endif
