#ifndef S7200HOST_VALUE_FILE_H
#define S7200HOST_VALUE_FILE_H

#include <s7200host/export.h>
#include <s7200host/tag.h>

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

namespace s7200
{

/// A tag and what its elements are to be, or were.
struct TagValue {
    Tag tag;                   ///< Which variable.
    QVector<quint32> elements; ///< Right-aligned.
};

/// Reads a set of values: a tag file with one column more, "value", in which a name may be missing.
/// Nothing, with a line for each fault in `errors` ("FILE line 7: ..."), if there is any: also for
/// what cannot be written and for a value that cannot be held. `controllers`: names that the column
/// may hold; null: any.
S7200HOST_EXPORT std::optional<QVector<TagValue>> parseValueFile(const QByteArray& csv,
                                                                 const QString& file,
                                                                 const QStringList* controllers,
                                                                 QStringList* errors);

/// The same from a file.
S7200HOST_EXPORT std::optional<QVector<TagValue>>
loadValueFile(const QString& file, const QStringList* controllers, QStringList* errors);

/// The file of a set of values, from which parseValueFile() reads the same bits.
S7200HOST_EXPORT QByteArray valueFile(const QVector<TagValue>& values);

} // namespace s7200

#endif
