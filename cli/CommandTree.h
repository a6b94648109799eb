#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

/// The commands and options as the parser describes them, for messages, help and completions.
/// Leaves out what the help hides.
namespace CommandTree {

/// The commands below one, in the order of the help.
std::vector<const CLI::App*> commandsOf(const CLI::App& command);

/// The command of that name below another; null if there is none.
const CLI::App* findCommand(const CLI::App& command, const std::string& name);

/// The words that call a command: "ahs cache show".
std::string fullName(const CLI::App& command);

/// The options, without operands, in the order of the help.
std::vector<const CLI::Option*> optionsOf(const CLI::App& command);

/// The operands ("HOST").
std::vector<const CLI::Option*> operandsOf(const CLI::App& command);

/// An option's names with their hyphens, the short ones first.
std::vector<std::string> namesOf(const CLI::Option& option);

/// Whether the option needs a value.
bool takesValue(const CLI::Option& option);

/// The help of a command.
std::string helpOf(const CLI::App& command);

}  // namespace CommandTree
