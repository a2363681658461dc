#include "panel/whole_write.h"

#include <cerrno>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace s7200::panel
{

namespace
{

void takeBack(int descriptor, qsizetype count)
{
    struct stat file;
    const off_t end = ::lseek(descriptor, 0, SEEK_CUR);
    const bool isLast =
        ::fstat(descriptor, &file) == 0 && S_ISREG(file.st_mode) && file.st_size == end;
    // Others that write through the same descriptor go on where this began.
    if (isLast && ::ftruncate(descriptor, end - off_t(count)) == 0)
        ::lseek(descriptor, end - off_t(count), SEEK_SET);
}

} // namespace

int writeWhole(int descriptor, const QByteArray& bytes)
{
    for (qsizetype at = 0; at < bytes.size();) {
        const ssize_t written =
            ::write(descriptor, bytes.constData() + at, size_t(bytes.size() - at));
        if (written >= 0) {
            at += written;
        } else if (errno == EAGAIN) {
            // Another program has made the shared terminal non-blocking.
            pollfd room = {descriptor, POLLOUT, 0};
            ::poll(&room, 1, -1);
        } else if (errno != EINTR) {
            const int error = errno;
            takeBack(descriptor, at);
            return error;
        }
    }
    return 0;
}

} // namespace s7200::panel
