#ifndef SIMULATOR_ITEM_TEXT_H
#define SIMULATOR_ITEM_TEXT_H

#include "simulator/controller_memory.h"
#include "simulator/s7_replies.h"

#include <QByteArray>
#include <QString>

namespace s7200::sim
{

/// One read or write as an engineer would write it, for the log.
struct ItemText {
    bool isWrite = false;
    bool known = true; ///< False: no such area.
    SimulatorArea area = SimulatorArea::V;
    bool isBit = false;
    int elementBytes = 1; ///< 0: no such data type.
    int address = 0;      ///< In bits, or the number of the first timer or counter.
    int count = 1;
    QByteArray data; ///< Written bytes, as they go into the memory.

    /// For example "read VB100 x 4 -> ok" or "write SMW0 = 0x1234 refused: access denied".
    QString line(ItemCode returnCode, JobError jobError) const;

private:
    QString name() const;
};

} // namespace s7200::sim

#endif
