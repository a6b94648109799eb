// The tool as a whole: its subcommands, help and version, and what a wrong command line is answered
// with. A subcommand has a source of its own and is added here by one line.

#include <algorithm>

#include "cli/AddOption.h"
#include "cli/BuildFacts.h"
#include "cli/CommandTree.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Interruption.h"
#include "cli/Table.h"
#include "cli/WrongCommandLine.h"

namespace {

constexpr int ExitPrinted = ExitNoMistakes;

// What CLI11 throws for a wrong command line, and for help, which is none.
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
  for (const StatusMeaning& meaning : statusMeanings()) {
    rows.push_back({meaning.status, meaning.commands, meaning.text});
  }
  return tableText({"EXIT STATUS", "COMMANDS", "MEANING"}, rows);
}

/// Thrown by --version, which needs no command and hears of nothing else on the line.
struct VersionWanted {};

// A --json of the tool itself exists for its --version; before a command it would be no command's.
void addVersion(CLI::App& tool) {
  tool.add_flag_callback(
      "--version", [] { throw VersionWanted(); },
      "Print the version, and what the program was built from and runs with");
  tool.add_flag_function(
      "--json", [](std::int64_t) {}, "With --version: print one JSON object");
}

// What stands after the "--" of `ahs exec` and `ahs completion` is another command line and no part
// of this one.
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

}  // namespace

void addCommands(CLI::App& tool, ChosenCommand& chosen, const std::vector<std::string>& other) {
  // "--no-cache=false" would be taken as a wish for it, and --no-cache=1 in silence.
  tool.option_defaults()->disable_flag_override();
  addVersion(tool);
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
    tool.parse(argumentCount, arguments);
  } catch (const VersionWanted&) {
    return Console::writeResult(
        tool.count("--json") > 0 ? BuildFacts::asJson() : BuildFacts::asText(), ExitPrinted);
  } catch (const CLI::ParseError& error) {
    return answer(tool, error);
  }
  if (tool.count("--json") > 0) {
    Console::complain("--json stands behind the command whose result is wanted as JSON, as in '" +
                      CommandTree::fullName(*tool.get_subcommands().front()) +
                      " --json'. 'ahs --help' shows all options.");
    return ExitUsage;
  }
  return chosen();
}
