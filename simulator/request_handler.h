#ifndef SIMULATOR_REQUEST_HANDLER_H
#define SIMULATOR_REQUEST_HANDLER_H

#include "simulator/memory_range.h"

#include <QByteArray>
#include <QString>

#include <optional>

namespace s7200::sim
{

/// What may be done to a request instead of serving it: a reply whose error class says that the
/// job failed, or whose item return code says that the item does. Neither touches the memory.
enum class Refusal { None, Job, Item };

/// What faults are aimed by.
struct RequestSummary {
    enum Kind { Other, Connect, Setup, Job };
    Kind kind = Other;
    MemoryRange touched; ///< Jobs: what is read or written.
};

/// One connection's side of the conversation, without the socket: takes received bytes, cuts them
/// into requests and answers each. Any bytes at all are safe to give it.
class RequestHandler
{
public:
    RequestHandler() = default;
    virtual ~RequestHandler() = default;

    /// Adds received bytes; takeRequest() then gives the whole requests among them, oldest first.
    virtual void append(const QByteArray& bytes) = 0;
    virtual std::optional<QByteArray> takeRequest() = 0;

    /// True once a real module would close the connection.
    virtual bool isBroken() const = 0;

    /// True once the client may send jobs.
    virtual bool isServing() const = 0;

    /// Reads a request and keeps it for answer(), which is to be called next.
    virtual RequestSummary parse(const QByteArray& request) = 0;

    /// Serves the request and returns the reply; empty: nothing is answered.
    virtual QByteArray answer(Refusal refusal) = 0;

    /// The request and its outcome in a line for people; valid after answer().
    virtual QString description() const = 0;

    /// Says that the reply just made will not reach the client as it is.
    virtual void replySpoiled() {}

    QByteArray reply(const QByteArray& request)
    {
        parse(request);
        return answer(Refusal::None);
    }

private:
    Q_DISABLE_COPY(RequestHandler)
};

} // namespace s7200::sim

#endif
