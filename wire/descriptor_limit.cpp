#include "wire/descriptor_limit.h"

#include <sys/resource.h>

namespace s7200::wire
{

QString raiseDescriptorLimit(int controllers, int each)
{
    constexpr int Others = 32;
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return QString();
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t needed = rlim_t(controllers) * rlim_t(each) + Others;
    if (controllers == 1 || limit.rlim_max >= needed)
        return QString();
    return QStringLiteral("%1 controllers need %2 file descriptors, the limit is %3 (ulimit -Hn)")
        .arg(controllers)
        .arg(needed)
        .arg(limit.rlim_max);
}

} // namespace s7200::wire
