#ifndef PANEL_WHOLE_WRITE_H
#define PANEL_WHOLE_WRITE_H

#include <QByteArray>

namespace s7200::panel
{

/// Writes all bytes; 0, or the errno of why not. What a full disk or a limit of file sizes has let
/// through by then is cut off again, where it is the end of a file: nobody reads half a record.
int writeWhole(int descriptor, const QByteArray& bytes);

} // namespace s7200::panel

#endif
