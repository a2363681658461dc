#include "panel/standard_input.h"

#include "panel/terminal.h"

#include <QStringList>

#include <cerrno>
#include <unistd.h>

namespace s7200::panel
{

namespace
{

constexpr int LongestLine = 1024 * 1024;
constexpr int PauseMs = 500;

} // namespace

StandardInput::StandardInput(const std::function<void(const QByteArray&)>& handler)
    : m_handler(handler), m_notifier(new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read))
{
    QObject::connect(m_notifier.get(), &QSocketNotifier::activated, [this] { read(); });
    m_pause.setSingleShot(true);
    QObject::connect(&m_pause, &QTimer::timeout, [this] { m_notifier->setEnabled(true); });
}

void StandardInput::read()
{
    if (!isForeground(STDIN_FILENO)) {
        // What is typed is for others; to read it would stop the program.
        m_notifier->setEnabled(false);
        m_pause.start(PauseMs);
        return;
    }
    char bytes[512];
    const ssize_t got = ::read(STDIN_FILENO, bytes, sizeof bytes);
    if (got < 0 && (errno == EINTR || errno == EAGAIN))
        return;
    if (got <= 0)
        m_notifier->setEnabled(false);
    m_handler(QByteArray(bytes, int(qMax<ssize_t>(0, got))));
}

QStringList LineCutter::feed(const QByteArray& bytes)
{
    m_rest += bytes;
    QStringList lines;
    for (int end; (end = int(m_rest.indexOf('\n'))) >= 0;) {
        const QString line = QString::fromUtf8(m_rest.left(end)).trimmed();
        m_rest.remove(0, end + 1);
        if (!line.isEmpty() && !m_tooLong)
            lines.append(line);
        m_tooLong = false;
    }
    // Its end alone could name another variable.
    m_tooLong = m_tooLong || m_rest.size() > LongestLine;
    if (m_tooLong)
        m_rest.clear();
    return lines;
}

QString LineCutter::rest() const
{
    return QString::fromUtf8(m_rest).trimmed();
}

} // namespace s7200::panel
