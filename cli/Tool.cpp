// The tool as a whole: its subcommands, help and version, and what a wrong command line is answered
// with. A subcommand has a source of its own and is added here by one line.

#include <CLI/CLI.hpp>
#include <sstream>

#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Interruption.h"

namespace {

// What CLI11 throws for a wrong command line, and for help and version, which are none.
int answer(const CLI::App& tool, const CLI::ParseError& error) {
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
    std::ostringstream text;
    std::ostringstream unused;
    static_cast<void>(tool.exit(error, text, unused));
    return Console::writeResult(text.str(), ExitSelected);
  }
  std::string command = tool.get_name();
  for (const CLI::App* chosen = &tool; !chosen->get_subcommands().empty();) {
    chosen = chosen->get_subcommands().front();
    command += " " + chosen->get_name();
  }
  Console::complain(Console::visible(error.what()) + ". '" + command +
                    " --help' shows all options.");
  return ExitUsage;
}

}  // namespace

int runTool(int argumentCount, char** arguments) {
  CLI::App tool("Chooses the VPN gateway (headend) that is nearest.", "ahs");
  tool.set_version_flag("--version", "ahs " AHS_VERSION, "Print the version and leave");
  tool.require_subcommand(1);
  tool.footer(
      "Exit status of select: 0 selected, 1 nothing could be measured, 2 usage or configuration,\n"
      "3 a proxy asks for a login and was given none or a wrong one,\n"
      "128 + number of the signal that ended it.");
  ChosenCommand chosen;
  addSelectCommand(tool, chosen);
  addProfileCommand(tool, chosen);
  addPreferencesCommand(tool, chosen);
  addCacheCommand(tool, chosen);
  Interruption::begin();
  try {
    tool.parse(argumentCount, arguments);
  } catch (const CLI::ParseError& error) {
    return answer(tool, error);
  }
  return chosen();
}
