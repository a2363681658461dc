#ifndef HOST_REPLY_COLLECTOR_H
#define HOST_REPLY_COLLECTOR_H

#include "wire/tpkt_reassembler.h"

#include <QByteArray>

#include <optional>

namespace s7200
{

/// Finds the reply to a frame among what a connection brings. Plain code: bytes in, reply out.
class ReplyCollector
{
public:
    /// `remote`: the peer answers forwarding records, each reply two bytes longer than its TPKT
    /// says.
    explicit ReplyCollector(bool remote = false);

    /// Waits for the reply to `frame` from now on. What came before cannot be it and is dropped.
    void begin(const QByteArray& frame);

    /// Adds received bytes; dropped while nothing is awaited.
    void append(const QByteArray& bytes);

    /// The next frame that can be the reply, and the end of waiting. Empty TPDUs and replies to
    /// other frames, which came late or twice, are passed over.
    std::optional<QByteArray> takeReply();

    /// True once no reply can come any more: what is being received are no TPKTs.
    bool isHopeless() const;

    /// Ends the waiting without a reply: what to give the driver instead. The bytes of a frame cut
    /// short or of no frame at all, else the last reply to another frame; empty after silence.
    QByteArray whatCameInstead();

private:
    bool m_remote;
    bool m_awaiting = false;
    wire::TpktReassembler m_reassembler;
    QByteArray m_frame;
    QByteArray m_received;   ///< Since begin(), bounded.
    QByteArray m_mismatched; ///< The last reply to some other frame.
};

} // namespace s7200

#endif
