#include "panel/standard_input.h"

#include <QStringList>

#include <cerrno>
#include <unistd.h>

namespace s7200::panel
{

namespace
{

constexpr int LongestLine = 4096;

} // namespace

StandardInput::StandardInput(const std::function<void(const QByteArray&)>& handler)
    : m_handler(handler), m_notifier(new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read))
{
    QObject::connect(m_notifier.get(), &QSocketNotifier::activated, [this] { read(); });
}

void StandardInput::read()
{
    char bytes[512];
    const ssize_t got = ::read(STDIN_FILENO, bytes, sizeof bytes);
    if (got > 0)
        m_handler(QByteArray(bytes, int(got)));
    else if (got == 0 || (errno != EINTR && errno != EAGAIN))
        m_notifier->setEnabled(false);
}

QStringList LineCutter::feed(const QByteArray& bytes)
{
    m_rest += bytes;
    QStringList lines;
    for (int end; (end = int(m_rest.indexOf('\n'))) >= 0;) {
        const QString line = QString::fromUtf8(m_rest.left(end)).trimmed();
        m_rest.remove(0, end + 1);
        if (!line.isEmpty())
            lines.append(line);
    }
    if (m_rest.size() > LongestLine)
        m_rest.clear();
    return lines;
}

} // namespace s7200::panel
