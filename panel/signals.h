#ifndef PANEL_SIGNALS_H
#define PANEL_SIGNALS_H

#include <QSocketNotifier>

#include <functional>
#include <memory>

namespace s7200::panel
{

/// Brings signals into the main thread's event loop. There is one in a program at a time.
class Signals
{
public:
    /// `handler` gets SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH and SIGTSTP, in the event loop;
    /// not one that the program's starter has ignored.
    explicit Signals(const std::function<void(int)>& handler);
    ~Signals(); ///< They do again what they did before.

private:
    Q_DISABLE_COPY(Signals)
    void deliver();

    std::function<void(int)> m_handler;
    std::unique_ptr<QSocketNotifier> m_notifier;
};

} // namespace s7200::panel

#endif
