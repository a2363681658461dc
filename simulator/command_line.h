#ifndef SIMULATOR_COMMAND_LINE_H
#define SIMULATOR_COMMAND_LINE_H

#include "simulator/simulator_options.h"

class QCommandLineParser;

namespace s7200::sim
{

/// What the program was asked for.
struct CommandLine {
    SimulatorOptions simulator;
    QString traceFile;
    bool mayReplaceTrace = false;
    int durationSeconds = 0; ///< 0: until a signal comes.
    bool help = false;
    bool version = false;
};

/// Reads the program's arguments; returns in a line what is wrong with them, empty if nothing.
QString readCommandLine(QCommandLineParser& parser, CommandLine* commandLine);

QString helpText();

} // namespace s7200::sim

#endif
