#ifndef SIMULATOR_FAULTY_REPLIES_H
#define SIMULATOR_FAULTY_REPLIES_H

#include "simulator/fault_injector.h"
#include "simulator/request_handler.h"

#include <QByteArray>
#include <QVector>

namespace s7200::sim
{

/// One connection's answers with whatever fault is due, without the socket.
class FaultyReplies
{
public:
    struct Answer {
        FaultKind fault = FaultKind::None; ///< That was chosen for the request.
        QVector<QByteArray> pieces;        ///< What goes out, in this order.
        bool isSplit = false;              ///< Each piece is to arrive by itself.
        bool closes = false;               ///< Then the connection is closed.
    };

    /// Both must outlive this. `trailingBytes`: that a reply has beyond its TPKT length.
    FaultyReplies(RequestHandler* handler, FaultInjector* faults, int trailingBytes = 0);

    Answer serve(const QByteArray& request);

private:
    void add(FaultKind fault, const QByteArray& reply, Answer* answer);

    RequestHandler* const m_handler;
    FaultInjector* const m_faults;
    const int m_trailingBytes;
    QByteArray m_late;     ///< Held back until the next request.
    QByteArray m_previous; ///< For sending once more.
};

} // namespace s7200::sim

#endif
