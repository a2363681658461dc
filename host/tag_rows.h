#ifndef HOST_TAG_ROWS_H
#define HOST_TAG_ROWS_H

#include <s7200host/tag.h>

#include <QByteArray>
#include <QString>
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

/// The good rows, with a line for each fault in `errors`. In a file with values a name may be
/// missing.
QVector<TagRow> readTagRows(const QByteArray& csv, const QString& file,
                            const QStringList* controllers, bool withValues, QStringList* errors);

} // namespace s7200

#endif
