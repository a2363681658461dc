#ifndef HOST_PANEL_LINK_H
#define HOST_PANEL_LINK_H

#include "host/waiter.h"
#include "wire/tpkt_reassembler.h"
#include <s7200host/controller.h>

#include <QByteArray>
#include <QString>
#include <QTcpSocket>

#include <atomic>

namespace s7200
{

namespace wire
{
class FrameTrace;
}

struct LinkSettings {
    Endpoint controller;
    bool remote = false;               ///< Frames are forwarding records and not TPKTs.
    int timeoutMs = 1000;              ///< For the connection and for each reply.
    wire::FrameTrace* trace = nullptr; ///< Not owned; may be null.
};

/// The TCP connection to one controller: sends a frame of the driver's and waits for its reply.
/// Used by one thread, the one that made it.
class PanelLink
{
public:
    enum class Answer { Reply, NoConnection, Closed, None };

    struct Exchange {
        Answer answer = Answer::None;
        QByteArray reply; ///< For DataCom: empty unless something came.
        QString detail;   ///< Why there is no connection.
    };

    /// `waiter` and `stop` must outlive the link; once `stop` is set no call waits any longer.
    PanelLink(const LinkSettings& settings, Waiter& waiter, const std::atomic<bool>& stop);

    /// Sends `frame` and returns the next frame that can be its reply, or what came instead of one
    /// when the time was up.
    ///
    /// A connection request (ISO 8073, CR) goes out on a TCP connection of its own, since a module
    /// refuses a second one on an old connection. Any other frame is never sent on a new
    /// connection, which would not have seen the handshake: it fails until the driver, past its
    /// retry limit, starts again with the handshake.
    Exchange exchange(const QByteArray& frame);

    /// To be called when the driver has declared the link down. On a remote link, which has no
    /// handshake, this is when both ends count their references anew, so when it may be reopened.
    void linkDeclaredDown();

private:
    bool opensConnection(const QByteArray& frame) const;
    QString connectAfresh();
    void dropStaleInput();
    void receive();
    bool takeReply(const QByteArray& frame, QByteArray* reply);
    Exchange awaitReply(const QByteArray& frame);

    const LinkSettings settings;
    Waiter& waiter;
    const std::atomic<bool>& stop;
    QTcpSocket socket;
    wire::TpktReassembler reassembler;
    QByteArray received;   ///< Since the last frame was sent.
    QByteArray mismatched; ///< The last reply to some other request since then.
    bool mayReopen = true; ///< Remote link only.
    int traceConnection = 0;
};

/// Why a controller refused the request that `reply` answers, as a short text; empty if it did
/// not: an error class, an item return code other than 0xFF, or a disconnect request (ISO 8073).
/// The driver takes a write that was refused by its item for a good one, so a host has to look.
QString refusalOf(const QByteArray& reply);

} // namespace s7200

#endif
