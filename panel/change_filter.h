#ifndef PANEL_CHANGE_FILTER_H
#define PANEL_CHANGE_FILTER_H

#include <s7200host/tag.h>
#include <s7200host/value.h>

#include <QHash>

namespace s7200::panel
{

/// Leaves out values that are what was reported last.
class ChangeFilter
{
public:
    /// `changesOnly`: report a value only if it differs by more than its dead band, or its quality
    /// does. `heartbeatMs`: report it again after that time, changed or not; 0: never.
    ChangeFilter(bool changesOnly, qint64 heartbeatMs);

    /// True if the value is to be reported; it then counts as reported. `nowMs` never decreases.
    bool take(int index, const Tag& tag, const Value& value, qint64 nowMs);

private:
    struct Reported {
        QVector<quint32> elements; ///< Of the last good value.
        Quality quality = Quality::NeverRead;
        qint64 timeMs = 0;
    };
    const bool m_changesOnly;
    const qint64 m_heartbeatMs;
    QHash<int, Reported> m_reported;
};

} // namespace s7200::panel

#endif
