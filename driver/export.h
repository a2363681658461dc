#ifndef DRIVER_EXPORT_H
#define DRIVER_EXPORT_H

#include <QtGlobal>

/// Marks what the shared library shows to the outside; everything else is hidden.
#define DRIVER_EXPORT Q_DECL_EXPORT

#endif
