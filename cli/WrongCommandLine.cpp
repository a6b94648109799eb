// Words for a command line that was not understood. What was typed may hold a password, so of a
// wrong option the name is repeated and the value is not.

#include "cli/WrongCommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "cli/CommandTree.h"
#include "cli/Wording.h"
#include "vpn/Api/ConfigurationText.h"
#include "vpn/Common/Utility/NearestName.h"

namespace {

// As much of a word as a person needs to find it again, in bytes.
constexpr std::size_t MaxWordLength = 80;

// As much of the parser's own words, which may hold what was typed.
constexpr std::size_t MaxTextLength = 300;

std::string inQuotes(const std::string& word) {
  return "'" + ConfigurationText::oneLine(word, MaxWordLength) + "'";
}

std::string whereHelpIs(const CLI::App& command) {
  return " '" + CommandTree::fullName(command) + " --help' shows all " +
         (CommandTree::commandsOf(command).empty() ? "options." : "commands.");
}

std::vector<std::string> namesOfOptions(const CLI::App& command) {
  std::vector<std::string> all;
  for (const CLI::Option* const option : CommandTree::optionsOf(command)) {
    const std::vector<std::string> names = CommandTree::namesOf(*option);
    all.insert(all.end(), names.begin(), names.end());
  }
  return all;
}

std::vector<std::string> namesOfCommands(const CLI::App& command) {
  std::vector<std::string> all;
  for (const CLI::App* const below : CommandTree::commandsOf(command)) {
    all.push_back(below->get_name());
  }
  return all;
}

std::string explainUnknownOption(const CLI::App& command, const std::string& word) {
  const std::string name = word.substr(0, word.find('='));
  const std::vector<std::string> names = namesOfOptions(command);
  // Among letters everything is near.
  const std::string* const meant = name.starts_with("--") ? nearestName(name, names) : nullptr;
  return "there is no option " + inQuotes(name) + " of '" + CommandTree::fullName(command) + "'" +
         (meant != nullptr ? "; did you mean '" + *meant + "'?"
          : CommandTree::commandsOf(command).empty()
              ? "."
              : "; options stand behind the command that they are for.") +
         whereHelpIs(command);
}

bool isOption(const std::string& word) { return word.size() > 1 && word.front() == '-'; }

std::string explainLeftOver(const CLI::App& command) {
  const std::vector<std::string> words = command.remaining(false);
  const auto name = std::find_if_not(words.begin(), words.end(), isOption);
  // The options behind a command that is not known are not known either.
  if (name != words.end() && command.get_subcommands().empty() &&
      !CommandTree::commandsOf(command).empty()) {
    return explainUnknownCommand(command, *name);
  }
  const auto option = std::find_if(words.begin(), words.end(), isOption);
  if (option != words.end()) {
    return explainUnknownOption(command, *option);
  }
  return inQuotes(words.front()) + " is one argument too many for '" +
         CommandTree::fullName(command) + "'." + whereHelpIs(command);
}

std::string explainMissingCommand(const CLI::App& command) {
  const std::vector<const CLI::App*> commands = CommandTree::commandsOf(command);
  const std::string name = CommandTree::fullName(command);
  if (command.get_parent() != nullptr) {
    return "'" + name + "' needs one of " + Wording::joined(namesOfCommands(command)) +
           ", as in '" + name + " " + commands.front()->get_name() + "'." + whereHelpIs(command);
  }
  return "a command is missing; '" + name +
         " select HOST...' measures gateways and names the nearest.\n" +
         CommandTree::helpOf(command);
}

std::string explainOtherwise(const CLI::App& command, const std::string& text) {
  const std::size_t flagEnd = text.find(" was given a disallowed flag override");
  return (flagEnd == std::string::npos ? ConfigurationText::oneLine(text, MaxTextLength)
                                       : "--" + text.substr(0, flagEnd) + " takes no value") +
         "." + whereHelpIs(command);
}

}  // namespace

std::string explainUnknownCommand(const CLI::App& above, const std::string& name) {
  const std::vector<std::string> names = namesOfCommands(above);
  const std::vector<std::string> options = namesOfOptions(above);
  const std::string asOption = "--" + name;
  const bool isOptionsName = std::find(options.begin(), options.end(), asOption) != options.end();
  const std::string* const meant = isOptionsName ? &asOption : nearestName(name, names);
  const std::string of =
      above.get_parent() == nullptr ? "" : " of '" + CommandTree::fullName(above) + "'";
  return "there is no command " + inQuotes(name) + of +
         (meant != nullptr ? "; did you mean '" + *meant + "'?"
                           : "; there are " + Wording::joined(names) + ".") +
         whereHelpIs(above);
}

std::string explainWrongCommandLine(const CLI::App& tool, const CLI::ParseError& error) {
  const CLI::App* command = &tool;
  while (command->remaining(false).empty() && !command->get_subcommands().empty()) {
    command = command->get_subcommands().front();
  }
  if (!command->remaining(false).empty()) {
    return explainLeftOver(*command);
  }
  return CommandTree::commandsOf(*command).empty() ? explainOtherwise(*command, error.what())
                                                   : explainMissingCommand(*command);
}
