#ifndef HOST_TAG_ROWS_H
#define HOST_TAG_ROWS_H

#include "host/csv.h"

#include <s7200host/value_file.h>

#include <QByteArray>
#include <QStringList>
#include <QVector>

namespace s7200
{

/// The good rows of a tag file, without elements, or of a value file, which has one column more and
/// in which a name may be missing.
QVector<TagValue> readTagRows(const QByteArray& csv, const QStringList* controllers,
                              bool withValues, Faults* faults);

} // namespace s7200

#endif
