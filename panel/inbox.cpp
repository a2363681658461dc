#include "panel/inbox.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace
{

constexpr char Call = 'c';
constexpr char Interrupt = 'i';

int pipeEnds[2] = {-1, -1};

void notify(char what)
{
    // A full pipe has woken the main thread already; nothing else can go wrong with it.
    const ssize_t written = ::write(pipeEnds[1], &what, 1);
    static_cast<void>(written);
}

void onSignal(int)
{
    notify(Interrupt);
}

} // namespace

Inbox::Inbox(const std::function<void()>& onInterrupt) : interrupted(onInterrupt)
{
    if (pipeEnds[0] < 0 && ::pipe2(pipeEnds, O_NONBLOCK | O_CLOEXEC) != 0)
        qFatal("no pipe to be had");
    notifier.reset(new QSocketNotifier(pipeEnds[0], QSocketNotifier::Read));
    QObject::connect(notifier.get(), &QSocketNotifier::activated, [this] { deliver(); });
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
}

Inbox::~Inbox()
{
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
}

void Inbox::post(const std::function<void()>& call)
{
    {
        const std::lock_guard<std::mutex> lock(mutex);
        calls.push_back(call);
    }
    notify(Call);
}

void Inbox::deliver()
{
    char notes[64];
    bool interrupt = false;
    for (ssize_t got; (got = ::read(pipeEnds[0], notes, sizeof notes)) > 0;)
        interrupt = interrupt || std::find(notes, notes + got, Interrupt) != notes + got;
    std::deque<std::function<void()>> taken;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        std::swap(taken, calls);
    }
    for (const auto& call : taken)
        call();
    if (interrupt)
        interrupted();
}
