#ifndef PANEL_OLD_COMMANDS_H
#define PANEL_OLD_COMMANDS_H

#include "panel/options.h"

class Session;

/// The program's commands: each runs the session's loop, returns when it is done or interrupted,
/// and gives the exit status.
int runWatch(const PanelOptions& options, Session& session);
int runRead(const PanelOptions& options, Session& session);
int runWrite(const PanelOptions& options, Session& session);

#endif
