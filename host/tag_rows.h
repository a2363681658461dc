#ifndef HOST_TAG_ROWS_H
#define HOST_TAG_ROWS_H

#include "host/csv.h"

#include <s7200host/tag.h>

#include <QByteArray>
#include <QStringList>
#include <QVector>

namespace s7200
{

/// A row of a tag file, or of a value file, which has one column more.
struct TagRow {
    int line = 0;
    Tag tag;
    QVector<quint32> elements; ///< The value, if there is one.
};

/// The good rows. In a file with values a name may be missing.
QVector<TagRow> readTagRows(const QByteArray& csv, const QStringList* controllers, bool withValues,
                            Faults* faults);

} // namespace s7200

#endif
