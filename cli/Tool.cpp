// The tool as a whole: subcommands, help, version, and the messages for a wrong command line. Each
// subcommand has its own source; one line here adds it.

#include <algorithm>

#include "cli/AddOption.h"
#include "cli/BuildFacts.h"
#include "cli/CommandTree.h"
#include "cli/Commands.h"
#include "cli/Confinement.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Interruption.h"
#include "cli/Table.h"
#include "cli/Wording.h"
#include "vpn/Api/ConfigurationText.h"
#include "vpn/Common/Utility/NearestName.h"

namespace {

constexpr int ExitPrinted = ExitNoMistakes;

// ---- Command lines that were not understood ----------------------------------------------------
// A typed value may be a password: messages repeat the name of a wrong option, never its value.

// So many bytes of a word let a person find it again.
constexpr std::size_t MaxWordLength = 80;

// The parser's own message, which may repeat typed words, is cut to this.
constexpr std::size_t MaxTextLength = 300;

std::string inQuotes(const std::string& word) {
  return "'" + ConfigurationText::oneLine(withoutMark(word), MaxWordLength) + "'";
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
  // Any single letter resembles any other, so short names get no suggestion.
  const std::string* const meant = name.starts_with("--") ? nearestName(name, names) : nullptr;
  return "there is no option " + inQuotes(name) + " of '" + CommandTree::fullName(command) + "'" +
         (meant != nullptr                           ? "; did you mean '" + *meant + "'?"
          : CommandTree::commandsOf(command).empty() ? "."
                                                     : "; options come after their command.") +
         whereHelpIs(command);
}

/// @param above the tool, or the command whose subcommands were searched.
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

bool isOption(const std::string& word) { return word.size() > 1 && word.front() == '-'; }

std::string explainLeftOver(const CLI::App& command) {
  const std::vector<std::string> words = command.remaining(false);
  const auto name = std::find_if_not(words.begin(), words.end(), isOption);
  // If the command is unknown, so are its options.
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
         " select HOST...' measures headends and names the nearest.\n" +
         CommandTree::helpOf(command);
}

std::string explainOtherwise(const CLI::App& command, const std::string& text) {
  const std::size_t flagEnd = text.find(" was given a disallowed flag override");
  return (flagEnd == std::string::npos ? ConfigurationText::oneLine(text, MaxTextLength)
                                       : "--" + text.substr(0, flagEnd) + " takes no value") +
         "." + whereHelpIs(command);
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

// ---- Help and version -------------------------------------------------------------------------

// CLI11 throws for a wrong command line, and also for help.
int answer(const CLI::App& tool, const CLI::ParseError& error) {
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
    const CLI::App* command = &tool;
    while (!command->get_subcommands().empty()) {
      command = command->get_subcommands().front();
    }
    return Console::writeResult(CommandTree::helpOf(*command), ExitPrinted);
  }
  Console::complain(explainWrongCommandLine(tool, error));
  return ExitUsage;
}

int showHelp(const CLI::App& tool, const std::vector<std::string>& words) {
  const CLI::App* command = &tool;
  for (const std::string& word : words) {
    const CLI::App* const below = CommandTree::findCommand(*command, word);
    if (below == nullptr) {
      Console::complain(explainUnknownCommand(*command, word));
      return ExitUsage;
    }
    command = below;
  }
  return Console::writeResult(CommandTree::helpOf(*command), ExitPrinted);
}

void addHelpCommand(CLI::App& tool, ChosenCommand& chosen) {
  CLI::App* const command = tool.add_subcommand("help", "Print the help of a command");
  const auto words = std::make_shared<std::vector<std::string>>();
  addOption(*command, "COMMAND", "[COMMAND...]", *words,
            "Command to print the help of; the tool itself unless given");
  command->callback([&, words] { chosen = [&tool, words] { return showHelp(tool, *words); }; });
}

std::string exitStatusTable() {
  std::vector<std::vector<std::string>> rows;
  rows.reserve(std::size(StatusMeanings));
  for (const StatusMeaning& meaning : StatusMeanings) {
    rows.push_back({meaning.status, meaning.commands, meaning.text});
  }
  return tableText({"EXIT STATUS", "COMMANDS", "MEANING"}, rows);
}

// The words after the "--" of `ahs exec` and `ahs completion` are another command line.
std::vector<std::string> takeOtherLine(int& argumentCount, char** arguments) {
  std::vector<std::string> other;
  const std::string command = argumentCount < 2 ? "" : arguments[1];
  if (command != "exec" && command != "completion") {
    return other;
  }
  char** const end = arguments + argumentCount;
  char** const mark = std::find(arguments, end, std::string("--"));
  if (mark != end) {
    other.assign(mark + 1, end);
    argumentCount = static_cast<int>(mark - arguments);
  }
  return other;
}

/// The command line as the parser wants it: the last word first.
std::vector<std::string> wordsOf(int argumentCount, char** arguments) {
  std::vector<std::string> words;
  for (int i = argumentCount - 1; i > 0; --i) {
    words.emplace_back(arguments[i]);
    if (words.back().starts_with('[') && words.back().ends_with(']')) {
      words.back() += BracketMark;
    }
  }
  return words;
}

}  // namespace

void addCommands(CLI::App& tool, ChosenCommand& chosen, const std::vector<std::string>& other) {
  // Otherwise the parser takes "--no-cache=false" for --no-cache, and --no-cache=1 in silence.
  tool.option_defaults()->disable_flag_override();
  tool.set_version_flag("--version", "",
                        "Print the version, and what the program was built from and runs with");
  // Only --version uses it; before a command it would have no effect.
  tool.add_flag("--json")->description("With --version: print one JSON object");
  tool.require_subcommand(1);
  tool.footer(exitStatusTable() +
              "\n'ahs COMMAND --help' shows the options of a command; the manual is ahs(1).");
  addSelectCommand(tool, chosen);
  addWatchCommand(tool, chosen);
  addExecCommand(tool, chosen, other);
  addProbeCommand(tool, chosen);
  addProfileCommand(tool, chosen);
  addPreferencesCommand(tool, chosen);
  addCacheCommand(tool, chosen);
  addCompletionCommand(tool, chosen, other);
  addHelpCommand(tool, chosen);
}

int runTool(int argumentCount, char** arguments) {
  const std::vector<std::string> other = takeOtherLine(argumentCount, arguments);
  CLI::App tool("Chooses the VPN gateway (headend) that is nearest.", "ahs");
  ChosenCommand chosen;
  addCommands(tool, chosen, other);
  Interruption::begin();
  try {
    tool.parse(wordsOf(argumentCount, arguments));
  } catch (const CLI::CallForVersion&) {
    return Console::writeResult(
        tool.count("--json") > 0 ? BuildFacts::asJson() : BuildFacts::asText(), ExitPrinted);
  } catch (const CLI::ParseError& error) {
    return answer(tool, error);
  }
  if (tool.count("--json") > 0) {
    Console::complain("--json comes after the command, as in '" +
                      CommandTree::fullName(*tool.get_subcommands().front()) +
                      " --json'. 'ahs --help' shows all options.");
    return ExitUsage;
  }
  // A user's program must be able to do whatever it could without us.
  const std::string command = tool.get_subcommands().front()->get_name();
  if (command != "exec" && command != "watch") {
    Confinement::begin(command == "select" ? Confinement::Programs::OurHelper
                                           : Confinement::Programs::None);
  }
  return chosen();
}
