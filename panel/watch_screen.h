#ifndef PANEL_WATCH_SCREEN_H
#define PANEL_WATCH_SCREEN_H

#include "panel/keyboard.h"
#include "panel/terminal.h"

#include <QElapsedTimer>
#include <QTimer>

#include <functional>

namespace s7200::panel
{

/// Rows on a terminal, with keys to move and a line for typing.
class WatchScreen
{
public:
    /// `rows` must outlive it. `line` gets what was typed; "q" and "quit" end the program.
    /// `readOnly`: what is typed will not be written, which the prompt says.
    WatchScreen(const QVector<WatchedRow>& rows, const std::function<void(const QString&)>& line,
                bool readOnly);

    void enter();
    /// Gives the terminal back, and prints the values that were shown last.
    void leave();
    bool isEntered() const;
    bool takesKeys() const; ///< Else standard input is not the terminal.

    void setStatus(const QStringList& status);
    /// Shown above the line for typing until it is old or the next one comes.
    void message(const QString& text);
    void refresh();

    void takeInput(const QByteArray& bytes);
    /// SIGWINCH and SIGTSTP; false for any other.
    bool takeSignal(int number);

private:
    void act(const Key& key);
    void moveTo(int top);

    const QVector<WatchedRow>& m_rows;
    std::function<void(const QString&)> m_line;
    const bool m_readOnly;
    Terminal m_terminal;
    Keyboard m_keyboard;
    Drawing m_drawing;
    QStringList m_status;
    QString m_message;
    QElapsedTimer m_sinceMessage;
    QTimer m_leaving; ///< Runs when nothing but "q" is typed.
    QTimer m_escape;  ///< Runs within the bytes of a key that begins with ESC.
    int m_top = 0;
};

} // namespace s7200::panel

#endif
