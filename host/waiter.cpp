#include "host/waiter.h"

#include <algorithm>
#include <limits>

namespace s7200
{

Waiter::Waiter() : dispatcher(QAbstractEventDispatcher::instance())
{
    timer.setSingleShot(true);
    timer.setTimerType(Qt::PreciseTimer);
}

void Waiter::wait(const QDeadlineTimer& deadline)
{
    if (deadline.hasExpired()) {
        poll();
        return;
    }
    if (!deadline.isForever()) {
        const qint64 left = deadline.remainingTime();
        timer.start(int(std::min<qint64>(left, std::numeric_limits<int>::max())));
    }
    loop.processEvents(QEventLoop::WaitForMoreEvents);
    timer.stop();
}

void Waiter::poll()
{
    loop.processEvents();
}

void Waiter::wake()
{
    dispatcher->wakeUp();
}

} // namespace s7200
