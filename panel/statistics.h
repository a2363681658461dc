#ifndef PANEL_STATISTICS_H
#define PANEL_STATISTICS_H

#include "panel/session.h"

namespace s7200::panel
{

/// Those of all controllers together.
LinkStatistics statisticsOf(const Session& session);

/// Says them on standard error: cycles, requests, failures by cause, round trips.
void printStatistics(const Session& session, qint64 elapsedMs);

} // namespace s7200::panel

#endif
