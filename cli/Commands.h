#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

/// The subcommand that a person chose, ready to run; its result is the exit status.
using ChosenCommand = std::function<int()>;

/// Each adds one subcommand and its options to the tool. When the command line names it, `chosen`
/// is set to what it does.
void addSelectCommand(CLI::App& tool, ChosenCommand& chosen);
void addWatchCommand(CLI::App& tool, ChosenCommand& chosen);
/// @param program what stands after "--": the program to run and its arguments; to outlive `tool`.
void addExecCommand(CLI::App& tool, ChosenCommand& chosen, const std::vector<std::string>& program);
void addProbeCommand(CLI::App& tool, ChosenCommand& chosen);
void addProfileCommand(CLI::App& tool, ChosenCommand& chosen);
void addPreferencesCommand(CLI::App& tool, ChosenCommand& chosen);
void addCacheCommand(CLI::App& tool, ChosenCommand& chosen);
/// @param words what stands after "--": the line to complete; to outlive `tool`.
void addCompletionCommand(CLI::App& tool, ChosenCommand& chosen,
                          const std::vector<std::string>& words);

/// Adds all of them, and the options of the tool itself.
/// @param other what stands after "--"; to outlive `tool`.
void addCommands(CLI::App& tool, ChosenCommand& chosen, const std::vector<std::string>& other);

/// The whole tool: parses the command line, runs the command, and returns the exit status.
int runTool(int argumentCount, char** arguments);
