#include "panel/watch_screen.h"

#include "panel/standard_input.h"

#include <QDateTime>

#include <csignal>
#include <unistd.h>

namespace s7200::panel
{

namespace
{

constexpr qint64 MessageMs = 15000;
/// Q is also how a variable's name begins: time to type on.
constexpr int LeavingMs = 1000;
/// For the rest of a key's bytes behind ESC, also on a slow line.
constexpr int EscapeMs = 500;

} // namespace

WatchScreen::WatchScreen(const QVector<WatchedRow>& rows,
                         const std::function<void(const QString&)>& line, bool readOnly)
    : m_rows(rows), m_line(line), m_readOnly(readOnly)
{
    m_leaving.setSingleShot(true);
    QObject::connect(&m_leaving, &QTimer::timeout, [this] { m_line(QStringLiteral("quit")); });
    m_escape.setSingleShot(true);
    QObject::connect(&m_escape, &QTimer::timeout, [this] {
        m_keyboard.endEscape();
        takeInput({});
    });
}

void WatchScreen::enter()
{
    m_terminal.enter();
    refresh();
}

void WatchScreen::leave()
{
    if (!m_terminal.isEntered())
        return;
    m_message.clear();
    m_keyboard.clear();
    refresh();
    m_terminal.leave();
    // The screen is gone; the values on it may still be of use.
    for (const ScreenLine& line : m_drawing.lines.mid(m_drawing.body, m_drawing.page)) {
        QString text = line.text();
        while (text.endsWith(QLatin1Char(' ')))
            text.chop(1);
        if (!text.isEmpty())
            print(text);
    }
}

bool WatchScreen::isEntered() const
{
    return m_terminal.isEntered();
}

bool WatchScreen::takesKeys() const
{
    return m_terminal.shape().typing;
}

void WatchScreen::setStatus(const QStringList& status)
{
    m_status = status;
}

void WatchScreen::message(const QString& text)
{
    m_message = text;
    m_sinceMessage.start();
    refresh();
}

void WatchScreen::refresh()
{
    if (!m_terminal.isEntered())
        return;
    if (m_sinceMessage.isValid() && m_sinceMessage.elapsed() > MessageMs)
        m_message.clear();
    ScreenContents contents;
    contents.status = m_status;
    contents.rows = &m_rows;
    contents.nowMs = QDateTime::currentMSecsSinceEpoch();
    contents.top = m_top;
    contents.message =
        m_leaving.isActive() ? QStringLiteral("leaving; type on to write to Q") : m_message;
    contents.readOnly = m_readOnly;
    contents.typed = m_keyboard.typed();
    m_drawing = draw(contents, m_terminal.shape());
    m_top = m_drawing.top;
    m_terminal.show(m_drawing);
}

void WatchScreen::takeInput(const QByteArray& bytes)
{
    for (const Key& key : m_keyboard.feed(bytes))
        act(key);
    if (m_keyboard.isInSequence())
        m_escape.start(EscapeMs);
    else
        m_escape.stop();
    if (m_keyboard.typed() == QLatin1String("q"))
        m_leaving.start(m_readOnly ? 0 : LeavingMs);
    else
        m_leaving.stop();
    refresh();
}

bool WatchScreen::takeSignal(int number)
{
    if (number == SIGTSTP) {
        m_terminal.leave();
        ::raise(SIGSTOP);
        // Here SIGCONT has come; in the background it remains left.
        if (!isForeground(STDOUT_FILENO))
            return true;
        m_terminal.enter();
    } else if (number != SIGWINCH) {
        return false;
    }
    m_terminal.forget();
    refresh();
    return true;
}

void WatchScreen::act(const Key& key)
{
    switch (key.kind) {
    case Key::Line:
        if (!key.line.isEmpty())
            m_line(key.line);
        break;
    case Key::Leave:
        m_line(QStringLiteral("quit"));
        break;
    case Key::Redraw:
        m_terminal.forget();
        break;
    case Key::Up:
        moveTo(m_top - 1);
        break;
    case Key::Down:
        moveTo(m_top + 1);
        break;
    case Key::PageUp:
        moveTo(m_top - m_drawing.page);
        break;
    case Key::PageDown:
        moveTo(m_top + m_drawing.page);
        break;
    case Key::Home:
        moveTo(0);
        break;
    case Key::End:
        moveTo(m_drawing.total);
        break;
    case Key::Edited:
        break;
    }
}

void WatchScreen::moveTo(int top)
{
    m_top = qBound(0, top, qMax(0, m_drawing.total - m_drawing.page));
}

} // namespace s7200::panel
