#ifndef HOST_SOCKET_WATCHER_H
#define HOST_SOCKET_WATCHER_H

#include <QSocketNotifier>

#include <memory>
#include <unordered_map>

namespace s7200
{

/// Who waits for news of a socket.
class SocketUser
{
public:
    /// There may be what was awaited, an end or an error: the next call on the socket tells.
    virtual void socketReady() = 0;

protected:
    ~SocketUser() = default;
};

/// Watches all sockets of a thread. One descriptor (epoll) stands for them in the event loop, which
/// looks at each of its descriptors at every turn: with a thousand links that costs more than all
/// that passes on them. For one thread only.
class SocketWatcher : public std::enable_shared_from_this<SocketWatcher>
{
public:
    enum class Await { Input, InputAndRoom };

    /// That of the calling thread. It lives as long as somebody holds it.
    static std::shared_ptr<SocketWatcher> ofThisThread();

    SocketWatcher() = default;
    ~SocketWatcher();

    /// Tells `user` of a socket whenever the event loop runs, until forget(). False, with the
    /// reason in errno, if the system has no room for it.
    bool watch(int descriptor, Await await, SocketUser* user);

    /// Changes what is awaited on a socket that is watched.
    void await(int descriptor, Await await);

    /// To be called before the socket is closed.
    void forget(int descriptor);

private:
    struct Watched {
        SocketUser* user;
        quint32 serial; ///< Of this use of the descriptor.
    };

    bool open();
    bool control(int operation, int descriptor, Await await);
    void tellUsers();

    int m_epoll = -1;
    std::unique_ptr<QSocketNotifier> m_notifier;
    std::unordered_map<int, Watched> m_watched; ///< By descriptor.
    quint32 m_lastSerial = 0;
};

} // namespace s7200

#endif
