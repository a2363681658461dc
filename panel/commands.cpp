#include "panel/commands.h"

namespace s7200::panel
{

QVector<Command> allCommands()
{
    return {watchCommand(), pingCommand(), explainCommand(), replayCommand()};
}

} // namespace s7200::panel
