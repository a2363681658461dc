#include "panel/commands.h"

namespace s7200::panel
{

QVector<Command> allCommands()
{
    return {watchCommand()};
}

} // namespace s7200::panel
