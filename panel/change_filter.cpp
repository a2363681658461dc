#include "panel/change_filter.h"

namespace s7200::panel
{

ChangeFilter::ChangeFilter(bool changesOnly, qint64 heartbeatMs)
    : m_changesOnly(changesOnly), m_heartbeatMs(heartbeatMs)
{
}

bool ChangeFilter::take(int index, const Tag& tag, const Value& value, qint64 nowMs)
{
    if (!m_changesOnly)
        return true;
    const auto known = m_reported.constFind(index);
    const bool first = known == m_reported.constEnd();
    const bool good = value.quality == Quality::Good;
    const bool due = !first && m_heartbeatMs > 0 && nowMs - known->timeMs >= m_heartbeatMs;
    if (!first && !due && known->quality == value.quality &&
        !(good && tag.hasChanged(known->elements, value.elements)))
        return false;
    Reported& reported = m_reported[index];
    if (good)
        reported.elements = value.elements;
    reported.quality = value.quality;
    reported.timeMs = nowMs;
    return true;
}

} // namespace s7200::panel
