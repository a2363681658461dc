#ifndef PANEL_COMMANDS_H
#define PANEL_COMMANDS_H

#include "panel/command_line.h"

namespace s7200::panel
{

// Each is made by a function in the file of the command: NAME_command.cpp, or value_sets.cpp.
Command watchCommand();
Command readCommand();
Command writeCommand();
Command pingCommand();
Command explainCommand();
Command replayCommand();
Command saveCommand();
Command diffCommand();
Command applyCommand();

/// All of them, in the order of the program's --help.
QVector<Command> allCommands();

} // namespace s7200::panel

#endif
