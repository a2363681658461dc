#ifndef SIEMENS_S7_200_CP243_EXPORT_H
#define SIEMENS_S7_200_CP243_EXPORT_H

#include <QtGlobal>

/// Marks what the shared library shows to the outside; everything else is hidden.
#define CP243_EXPORT Q_DECL_EXPORT

#endif
