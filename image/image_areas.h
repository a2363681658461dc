#ifndef IMAGE_IMAGE_AREAS_H
#define IMAGE_IMAGE_AREAS_H

/// Where the image keeps each controller area, and how large it is.

#include "core/register_properties.h"

#include <QtGlobal>

namespace cp243
{

/// The image area of bytes; null for TV and CV, which hold 16-bit values.
unsigned char* byteArea(Area area);

/// The image area of timer or counter values; null for any other.
unsigned short* valueArea(Area area);

/// Bytes from `pointer` to the end of the image area that it points into; the largest int for a
/// pointer outside the image, whose caller answers for its memory.
qint64 bytesBehind(const void* pointer);

} // namespace cp243

#endif
