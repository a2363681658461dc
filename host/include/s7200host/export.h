#ifndef S7200HOST_EXPORT_H
#define S7200HOST_EXPORT_H

#include <QtGlobal>

/// Marks what libs7200host shows to the outside; everything else is hidden.
#define S7200HOST_EXPORT Q_DECL_EXPORT

#endif
