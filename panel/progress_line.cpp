#include "panel/progress_line.h"

#include "panel/messages.h"

#include <unistd.h>

namespace s7200::panel
{

namespace
{

constexpr int DrawMs = 1000;

void toTerminal(const QByteArray& bytes)
{
    // A line that is only shown for a while may be lost.
    if (::write(STDERR_FILENO, bytes.constData(), size_t(bytes.size())) < 0)
        return;
}

} // namespace

ProgressLine::ProgressLine(const QString& what, int total) : m_what(what), m_total(total)
{
    m_since.start();
    QObject::connect(&m_timer, &QTimer::timeout, &m_timer, [this] { draw(); });
    if (::isatty(STDERR_FILENO) == 1)
        m_timer.start(DrawMs);
}

ProgressLine::~ProgressLine()
{
    if (m_drawn)
        toTerminal("\r\x1b[K");
}

void ProgressLine::advance()
{
    ++m_done;
}

void ProgressLine::draw()
{
    const QString text = QStringLiteral("\r%1 of %2 %3, %4 s\x1b[K")
                             .arg(m_done)
                             .arg(m_total)
                             .arg(m_what)
                             .arg(m_since.elapsed() / DrawMs);
    toTerminal(encoded(text));
    m_drawn = true;
}

} // namespace s7200::panel
