#include "panel/signals.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace s7200::panel
{

namespace
{

constexpr int Handled[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH, SIGTSTP};
constexpr int HandledCount = int(sizeof Handled / sizeof Handled[0]);

int pipeEnds[2] = {-1, -1};
struct sigaction before[HandledCount];

void onSignal(int number)
{
    const int saved = errno;
    const char note = char(number);
    // A full pipe has woken the main thread already; nothing else can go wrong with it.
    const ssize_t written = ::write(pipeEnds[1], &note, 1);
    static_cast<void>(written);
    errno = saved;
}

} // namespace

Signals::Signals(const std::function<void(int)>& handler) : m_handler(handler)
{
    if (pipeEnds[0] < 0 && ::pipe2(pipeEnds, O_NONBLOCK | O_CLOEXEC) != 0)
        qFatal("no pipe to be had");
    m_notifier.reset(new QSocketNotifier(pipeEnds[0], QSocketNotifier::Read));
    QObject::connect(m_notifier.get(), &QSocketNotifier::activated, [this] { deliver(); });
    struct sigaction action = {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART;
    for (int i = 0; i < HandledCount; ++i) {
        ::sigaction(Handled[i], &action, &before[i]);
        // What the starter of the program had ignored, as nohup and background jobs of a script
        // do, stays ignored.
        if (before[i].sa_handler == SIG_IGN)
            ::sigaction(Handled[i], &before[i], nullptr);
    }
}

Signals::~Signals()
{
    for (int i = 0; i < HandledCount; ++i)
        ::sigaction(Handled[i], &before[i], nullptr);
}

void Signals::deliver()
{
    char notes[64];
    for (ssize_t got; (got = ::read(pipeEnds[0], notes, sizeof notes)) > 0;) {
        for (ssize_t i = 0; i < got; ++i)
            m_handler(notes[i]);
    }
}

} // namespace s7200::panel
