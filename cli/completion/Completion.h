#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

/// Scripts that complete the tool's command lines in a shell, made from the tool's own description.
namespace Completion {

/// What stands behind an option, or as an operand.
enum class Kind {
  Nothing,  ///< an option that takes no value; no operands
  Other,    ///< something that cannot be known
  Words,    ///< one of a few words
  File,
  Directory,
  Name,     ///< the name of a host entry
  Headend,  ///< the address of a host entry
  Program,  ///< a program
};

struct Value {
  Kind kind = Kind::Nothing;
  std::vector<std::string> words;
};

struct Option {
  std::vector<std::string> names;  ///< with their hyphens
  std::string description;         ///< a few words of plain text
  std::string placeholder;
  Value value;
};

struct Command {
  std::string path;  ///< without the tool: "cache show"; empty for the tool
  std::string name;
  std::string description;  ///< plain text
  std::vector<Option> options;
  Value operands;
  std::string placeholder;        ///< of the operands
  bool takesProgram = false;      ///< the command line of a program stands behind a "--"
  std::vector<Command> commands;  ///< those below it
};

/// A command with all that is below it.
Command describe(const CLI::App& command);

/// A command and all below it, in one list.
std::vector<const Command*> flatten(const Command& command);

/// A plain text with each apostrophe replaced, to stand between apostrophes.
std::string withoutApostrophes(const std::string& text, const std::string& replacement);

std::string bashScript(const Command& tool);
std::string zshScript(const Command& tool);
std::string fishScript(const Command& tool);

}  // namespace Completion
