#include "panel/output_file.h"

#include "panel/messages.h"
#include "panel/whole_write.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

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

/// True for a file whose last line has no end, as a power cut or a full disk leaves it.
bool endsTorn(const QString& name)
{
    QFile file(name);
    // Nothing can be said of what may not be read; a pipe would give its reader's bytes away.
    if (!QFileInfo(name).isFile() || file.size() == 0 || !file.open(QIODevice::ReadOnly))
        return false;
    char last = 0;
    return file.seek(file.size() - 1) && file.getChar(&last) && last != '\n';
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
    m_endsTorn = endsTorn(m_name);
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
    QByteArray bytes = isAtStart() ? header + lines : lines;
    if (std::exchange(m_endsTorn, false) && !isAtStart())
        bytes.prepend('\n');
    m_begun = true;
    if (m_descriptor < 0)
        return printBytes(bytes);
    const int error = writeWhole(m_descriptor, bytes);
    return error == 0 || fail(error);
}

bool OutputFile::fail(int errorNumber)
{
    m_failed = true;
    failOutput(QStringLiteral("cannot write to %1: %2").arg(m_name, systemError(errorNumber)));
    return false;
}

} // namespace s7200::panel
