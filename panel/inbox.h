#ifndef PANEL_INBOX_H
#define PANEL_INBOX_H

#include <QSocketNotifier>

#include <deque>
#include <functional>
#include <memory>
#include <mutex>

/// Brings calls from other threads, SIGINT and SIGTERM to the main thread's event loop. There is
/// one in a program, made by the main thread; it opens its pipe for the program's life.
class Inbox
{
public:
    explicit Inbox(const std::function<void()>& interrupted);
    ~Inbox();

    /// Has `call` made by the main thread. Any thread.
    void post(const std::function<void()>& call);

private:
    Q_DISABLE_COPY(Inbox)
    void deliver();

    std::function<void()> interrupted;
    std::unique_ptr<QSocketNotifier> notifier;
    std::mutex mutex;
    std::deque<std::function<void()>> calls;
};

#endif
