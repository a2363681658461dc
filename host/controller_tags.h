#ifndef HOST_CONTROLLER_TAGS_H
#define HOST_CONTROLLER_TAGS_H

#include <s7200host/tag.h>

#include <QString>
#include <QStringList>
#include <QVector>

namespace s7200
{

// Tags among the controllers that there are, by name.

/// The same tags, but that one of no controller is there once for each that has none of its name.
/// With a single controller it stays one of none, and so does one whose address says its station.
QVector<Tag> onEach(const QVector<Tag>& tags, const TagTable& table,
                    const QStringList& controllers);

/// TagTable::lookup(), then onEach(). What stands before the colon may also be a pattern of
/// controllers' names: what is meant is then what each of them has.
QVector<Tag> lookup(const TagTable& table, const QString& text, const QStringList& controllers,
                    QString* error);

/// labelsOf(), with the controller also if all are of one.
QStringList labelsWithControllers(const QVector<Tag>& tags);

} // namespace s7200

#endif
