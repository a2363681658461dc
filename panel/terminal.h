#ifndef PANEL_TERMINAL_H
#define PANEL_TERMINAL_H

#include "panel/screen.h"

#include <termios.h>

namespace s7200::panel
{

/// False for a terminal that another job of the shell has. Neither is it read then nor drawn on.
bool isForeground(int terminal);

/// The terminal that standard output is, as a whole screen. Leaves it as it was found.
class Terminal
{
public:
    /// True if standard output is a terminal that can be drawn on.
    static bool isUsable();

    Terminal() = default;
    ~Terminal(); ///< Leaves.

    /// Takes the whole screen, and each key at once if standard input is the terminal.
    void enter();
    void leave();
    bool isEntered() const;

    ScreenShape shape() const;

    /// Brings what has changed since the last drawing to the screen.
    void show(const Drawing& drawing);

    /// The next show() draws everything.
    void forget();

private:
    bool m_entered = false;
    bool m_takesKeys = false;
    termios m_before = {};
    QStringList m_shown; ///< Lines on the screen, as sent.
};

} // namespace s7200::panel

#endif
