#ifndef HOST_REQUEST_QUEUE_H
#define HOST_REQUEST_QUEUE_H

#include "host/moment.h"
#include "host/reply_judgement.h"
#include "host/request_plan.h"

#include <s7200host/controller.h>

#include <deque>
#include <functional>
#include <memory>
#include <vector>

namespace s7200
{

/// One read or write that somebody has asked for.
struct Request {
    int id = 0;
    Variable variable;
    int station = 0;
    QVector<quint32> values; ///< Empty: a read.
    Controller::Done done;
    bool isBegun = false;    ///< The driver was given a part of it.
    QList<WriteStep> steps;  ///< Of a write, not yet given to the driver.
    int unanswered = 0;      ///< Of what was given to the driver.
    bool isSent = false;     ///< A part of it, at least.
    Failure refusal;         ///< Of a part of a write.
    bool hasWritten = false; ///< A part of it.
    QByteArray bits;         ///< Read of timers or counters, a byte each; see statusBits().
    Moment readAt = {-1, 0}; ///< Of the oldest part read.
    Micros trips = 0;        ///< How long all parts took so far.
    bool isLate = false;     ///< A part was too old when it came.

    bool isWrite() const
    {
        return !values.isEmpty();
    }
};
using RequestPtr = std::unique_ptr<Request>;

/// Open requests in the order given. One at a time is the driver's, since what is in its queues
/// would be carried out whenever the link comes back.
class RequestQueue
{
public:
    void add(RequestPtr request)
    {
        m_lastId = m_lastId % MostIds + 1;
        request->id = m_lastId;
        m_waiting.push_back(std::move(request));
    }

    /// The request that the driver carries out, or null.
    Request* active() const
    {
        return m_active.get();
    }

    bool hasAny(int station) const;

    /// Makes the first one whose station `isReady` the active one, if there is none yet.
    Request* activate(const std::function<bool(int station)>& isReady);

    RequestPtr takeActive()
    {
        return std::move(m_active);
    }

    /// Lets the active one, a read, wait again.
    void putBack()
    {
        m_active->unanswered = 0;
        m_active->isBegun = m_active->isLate = false;
        m_active->readAt = {-1, 0};
        m_active->trips = 0;
        m_waiting.push_front(std::move(m_active));
    }

    /// Those that wait for a station.
    std::vector<RequestPtr> takeWaiting(int station);

private:
    static constexpr int MostIds = 1 << 30;

    std::deque<RequestPtr> m_waiting;
    RequestPtr m_active;
    int m_lastId = 0;
};

} // namespace s7200

#endif
