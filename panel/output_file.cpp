#include "panel/output_file.h"

#include "panel/messages.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace s7200::panel
{

namespace
{

constexpr int ForAllToRead = 0644;

QString systemError(int number)
{
    return QString::fromLocal8Bit(std::strerror(number));
}

int openToAppend(const QString& file)
{
    return ::open(QFile::encodeName(file).constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC,
                  ForAllToRead);
}

} // namespace

OutputFile::~OutputFile()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

bool OutputFile::open(const QString& file, QString* error)
{
    m_name = file;
    return reopen(error);
}

bool OutputFile::reopen(QString* error)
{
    if (m_name.isEmpty())
        return true;
    const int descriptor = openToAppend(m_name);
    if (descriptor < 0) {
        *error = QStringLiteral("cannot write to %1: %2").arg(m_name, systemError(errno));
        return false;
    }
    if (m_descriptor >= 0)
        ::close(m_descriptor);
    m_descriptor = descriptor;
    return true;
}

bool OutputFile::isAtStart() const
{
    struct stat file;
    if (m_descriptor < 0 || ::fstat(m_descriptor, &file) != 0 || !S_ISREG(file.st_mode))
        return !m_begun;
    return file.st_size == 0;
}

bool OutputFile::write(const QByteArray& header, const QByteArray& lines)
{
    if (m_failed || lines.isEmpty())
        return !m_failed;
    // In one piece, so that nothing comes between even if others append to the file.
    const QByteArray bytes = isAtStart() ? header + lines : lines;
    m_begun = true;
    if (m_descriptor < 0)
        return printBytes(bytes);
    for (qint64 done = 0; done < bytes.size();) {
        const ssize_t written =
            ::write(m_descriptor, bytes.constData() + done, size_t(bytes.size() - done));
        if (written < 0 && errno != EINTR)
            return fail(errno);
        done += written > 0 ? written : 0;
    }
    return true;
}

bool OutputFile::fail(int errorNumber)
{
    m_failed = true;
    failOutput(QStringLiteral("cannot write to %1: %2").arg(m_name, systemError(errorNumber)));
    return false;
}

} // namespace s7200::panel
