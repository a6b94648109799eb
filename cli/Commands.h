#pragma once

#include <functional>

namespace CLI {
class App;
}

/// The subcommand that a person chose, ready to run; its result is the exit status.
using ChosenCommand = std::function<int()>;

/// Each adds one subcommand and its options to the tool. When the command line names it, `chosen`
/// is set to what it does.
void addSelectCommand(CLI::App& tool, ChosenCommand& chosen);
void addProfileCommand(CLI::App& tool, ChosenCommand& chosen);
void addPreferencesCommand(CLI::App& tool, ChosenCommand& chosen);
void addCacheCommand(CLI::App& tool, ChosenCommand& chosen);

/// The whole tool: parses the command line, runs the command, and returns the exit status.
int runTool(int argumentCount, char** arguments);
