#ifndef PANEL_STATISTICS_H
#define PANEL_STATISTICS_H

#include "panel/session.h"

namespace s7200::panel
{

/// Adds one controller's to those of others. `grantedPdu` is each one's own and stays.
void addStatistics(const LinkStatistics& one, LinkStatistics* all);

/// Those of all controllers together.
LinkStatistics statisticsOf(const Session& session);

/// "41 cycles (2 late), 160 requests, 0 retries, 2 connections, 1 link loss, 1 reconnect in 20.5
/// s"; late cycles and reconnects only if there were any.
QString statisticsText(const LinkStatistics& all, qint64 elapsedMs);

/// Says them on standard error: cycles, requests, failures by cause, round trips.
void printStatistics(const Session& session, qint64 elapsedMs);

} // namespace s7200::panel

#endif
