#include "panel/commands.h"

namespace s7200::panel
{

QVector<Command> allCommands()
{
    return {watchCommand(), readCommand(), writeCommand(),
            saveCommand(),  diffCommand(), applyCommand()};
}

} // namespace s7200::panel
