#ifndef HOST_WAITER_H
#define HOST_WAITER_H

#include <QAbstractEventDispatcher>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QTimer>

namespace s7200
{

/// Puts the thread that made it to sleep until one of its sockets has news, somebody wakes it, or
/// a deadline passes. A QCoreApplication must exist.
class Waiter
{
public:
    Waiter();

    /// Sleeps; may also return early for no reason, so callers look and wait again.
    void wait(const QDeadlineTimer& deadline);

    /// Lets the sockets take note of what has happened, without sleeping.
    void poll();

    /// Ends the current or the next wait(). Any thread.
    void wake();

private:
    QEventLoop loop;
    QTimer timer;
    QAbstractEventDispatcher* dispatcher;
};

} // namespace s7200

#endif
