#ifndef IMAGE_HOST_BYTES_H
#define IMAGE_HOST_BYTES_H

/// The host's byte arrays, which may be shorter than what is asked of them.

#include <QByteArray>
#include <QtGlobal>

namespace cp243
{

/// The output's bytes once it holds at least `size`; what is added is 0.
char* grown(QByteArray& out, qint64 size);

/// Input byte, 0 beyond the end.
inline unsigned char inputByte(const QByteArray& in, int index)
{
    return index < in.size() ? static_cast<unsigned char>(in.at(index)) : 0;
}

} // namespace cp243

#endif
