#include "image/host_bytes.h"

#include <cstring>

namespace cp243
{

char* grown(QByteArray& out, qint64 size)
{
    const int before = int(out.size());
    if (before < size) {
        out.resize(int(size));
        std::memset(out.data() + before, 0, size_t(size - before));
    }
    return out.data();
}

} // namespace cp243
