#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

/// The subcommand that a person chose, ready to run; its result is the exit status.
using ChosenCommand = std::function<int()>;

/// Each function adds one subcommand with its options to the tool. If the command line names the
/// subcommand, the parser sets `chosen`.
void addSelectCommand(CLI::App& tool, ChosenCommand& chosen);
void addWatchCommand(CLI::App& tool, ChosenCommand& chosen);
/// @param program words after "--": the program and its arguments; must outlive `tool`.
void addExecCommand(CLI::App& tool, ChosenCommand& chosen, const std::vector<std::string>& program);
void addProbeCommand(CLI::App& tool, ChosenCommand& chosen);
void addProfileCommand(CLI::App& tool, ChosenCommand& chosen);
void addPreferencesCommand(CLI::App& tool, ChosenCommand& chosen);
void addCacheCommand(CLI::App& tool, ChosenCommand& chosen);
/// @param words words after "--": the line to complete; must outlive `tool`.
void addCompletionCommand(CLI::App& tool, ChosenCommand& chosen,
                          const std::vector<std::string>& words);

/// Adds all subcommands and the options of the tool itself.
/// @param other words after "--"; must outlive `tool`.
void addCommands(CLI::App& tool, ChosenCommand& chosen, const std::vector<std::string>& other);

/// The whole tool: parses the command line, runs the command, and returns the exit status.
int runTool(int argumentCount, char** arguments);
