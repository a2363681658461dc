#ifndef PANEL_MERGED_READS_H
#define PANEL_MERGED_READS_H

#include "panel/command_line.h"

#include <QVector>

#include <vector>

namespace s7200::panel
{

/// One read for items that lie together.
struct MergedRead {
    int controller = 0;   ///< As of the items.
    Variable variable;    ///< Covers them all; an item's own if it is alone.
    QVector<int> indexes; ///< Of the items.
};

/// Reads for all items, each of as much as one request brings.
std::vector<MergedRead> mergedReads(const QVector<Item>& items);

/// The elements of `part` out of those of a merged read of `whole`.
QVector<quint32> elementsWithin(const Variable& part, const Variable& whole,
                                const QVector<quint32>& elements);

} // namespace s7200::panel

#endif
