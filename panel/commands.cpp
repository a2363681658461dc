#include "panel/commands.h"

namespace s7200::panel
{

QVector<Command> allCommands()
{
    return {watchCommand(), readCommand(), writeCommand(),   saveCommand(),  diffCommand(),
            applyCommand(), pingCommand(), explainCommand(), replayCommand()};
}

} // namespace s7200::panel
