#include "host/socket_watcher.h"

#include <sys/epoll.h>
#include <unistd.h>

namespace s7200
{

std::shared_ptr<SocketWatcher> SocketWatcher::ofThisThread()
{
    thread_local std::weak_ptr<SocketWatcher> current;
    std::shared_ptr<SocketWatcher> watcher = current.lock();
    if (!watcher) {
        watcher = std::make_shared<SocketWatcher>();
        current = watcher;
    }
    return watcher;
}

SocketWatcher::~SocketWatcher()
{
    m_notifier.reset();
    if (m_epoll >= 0)
        ::close(m_epoll);
}

bool SocketWatcher::watch(int descriptor, Await await, SocketUser* user)
{
    if (m_epoll < 0 && !open())
        return false;
    m_watched[descriptor] = {user, ++m_lastSerial};
    if (control(EPOLL_CTL_ADD, descriptor, await))
        return true;
    m_watched.erase(descriptor);
    return false;
}

void SocketWatcher::await(int descriptor, Await await)
{
    control(EPOLL_CTL_MOD, descriptor, await);
}

void SocketWatcher::forget(int descriptor)
{
    if (m_watched.erase(descriptor) > 0)
        control(EPOLL_CTL_DEL, descriptor, Await::Input);
}

bool SocketWatcher::open()
{
    m_epoll = epoll_create1(EPOLL_CLOEXEC);
    if (m_epoll < 0)
        return false;
    m_notifier.reset(new QSocketNotifier(m_epoll, QSocketNotifier::Read));
    QObject::connect(m_notifier.get(), &QSocketNotifier::activated, [this] { tellUsers(); });
    return true;
}

bool SocketWatcher::control(int operation, int descriptor, Await await)
{
    const auto watched = m_watched.find(descriptor);
    const quint32 serial = watched == m_watched.end() ? 0 : watched->second.serial;
    epoll_event event = {};
    event.events = EPOLLIN;
    if (await == Await::InputAndRoom)
        event.events |= EPOLLOUT;
    event.data.u64 = quint64(serial) << 32 | quint32(descriptor);
    return epoll_ctl(m_epoll, operation, descriptor, &event) == 0;
}

/// Whoever is told may close any socket, open others under the same descriptors, or run an event
/// loop of its own.
void SocketWatcher::tellUsers()
{
    const std::shared_ptr<SocketWatcher> self = shared_from_this();
    epoll_event events[64];
    const int count = epoll_wait(m_epoll, events, int(std::size(events)), 0);
    for (int i = 0; i < count; ++i) {
        const auto watched = m_watched.find(int(quint32(events[i].data.u64)));
        if (watched != m_watched.end() &&
            watched->second.serial == quint32(events[i].data.u64 >> 32))
            watched->second.user->socketReady();
    }
}

} // namespace s7200
