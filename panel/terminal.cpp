#include "panel/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace s7200::panel
{

namespace
{

// ECMA-48 control sequences, and the private modes that terminals have in common: 1049 is a screen
// of its own, 25 the cursor, 7 going on to the next line behind the last column.
const char* const EnterScreen = "\x1b[?1049h\x1b[?7l\x1b[2J";
const char* const LeaveScreen = "\x1b[?7h\x1b[?25h\x1b[?1049l";
const char* const HideCursor = "\x1b[?25l";
const char* const ShowCursor = "\x1b[?25h";
const char* const EraseToLineEnd = "\x1b[K";
const char* const EraseAll = "\x1b[2J";

QString at(int line, int column)
{
    return QStringLiteral("\x1b[%1;%2H").arg(line + 1).arg(column + 1);
}

/// Terminals without colours, by the names that TERM gives them.
bool isMonochrome(const QByteArray& term)
{
    return term.startsWith("vt") || term.endsWith("-m") || term.endsWith("-mono");
}

} // namespace

bool isForeground(int terminal)
{
    // Anything else has no foreground; 0 is one outside a container.
    const pid_t group = ::tcgetpgrp(terminal);
    return group <= 0 || group == ::getpgrp();
}

bool Terminal::isUsable()
{
    const QByteArray term = qgetenv("TERM");
    return ::isatty(STDOUT_FILENO) == 1 && !term.isEmpty() && term != "dumb";
}

Terminal::~Terminal()
{
    leave();
}

void Terminal::enter()
{
    if (m_entered)
        return;
    m_entered = true;
    m_takesKeys = ::isatty(STDIN_FILENO) == 1 && ::tcgetattr(STDIN_FILENO, &m_before) == 0;
    if (m_takesKeys) {
        termios keys = m_before;
        keys.c_lflag &= ~tcflag_t(ICANON | ECHO | IEXTEN); // Ctrl-C and Ctrl-Z stay signals
        keys.c_iflag &= ~tcflag_t(IXON);
        keys.c_cc[VMIN] = 1;
        keys.c_cc[VTIME] = 0;
        ::tcsetattr(STDIN_FILENO, TCSADRAIN, &keys);
    }
    printBytes(EnterScreen);
    forget();
}

void Terminal::leave()
{
    if (!m_entered)
        return;
    m_entered = false;
    printBytes(LeaveScreen);
    if (m_takesKeys)
        ::tcsetattr(STDIN_FILENO, TCSADRAIN, &m_before);
}

bool Terminal::isEntered() const
{
    return m_entered;
}

ScreenShape Terminal::shape() const
{
    ScreenShape shape;
    winsize size = {};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
        shape.columns = size.ws_col;
        shape.lines = size.ws_row;
    }
    shape.utf8 = isUtf8Locale();
    shape.colour = qEnvironmentVariableIsEmpty("NO_COLOR") && !isMonochrome(qgetenv("TERM"));
    shape.typing = m_takesKeys;
    return shape;
}

void Terminal::show(const Drawing& drawing)
{
    if (!m_entered)
        return;
    const bool colour = shape().colour;
    QString text = QLatin1String(HideCursor);
    if (m_shown.size() != drawing.lines.size()) {
        m_shown = QStringList();
        text += QLatin1String(EraseAll);
    }
    for (int i = 0; i < int(drawing.lines.size()); ++i) {
        const QString line = drawing.lines.at(i).forTerminal(colour);
        if (i < int(m_shown.size()) && m_shown.at(i) == line)
            continue;
        text += at(i, 0) + line + QLatin1String(EraseToLineEnd);
        if (i < int(m_shown.size()))
            m_shown[i] = line;
        else
            m_shown.append(line);
    }
    text += at(int(drawing.lines.size()) - 1, drawing.cursorColumn);
    if (m_takesKeys)
        text += QLatin1String(ShowCursor);
    printBytes(encoded(text));
}

void Terminal::forget()
{
    m_shown.clear();
}

} // namespace s7200::panel
