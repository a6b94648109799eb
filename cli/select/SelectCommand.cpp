// `ahs select`: one selection, from options to exit status. Standard output gets only the result.

#include <memory>
#include <set>

#include "cli/AddOption.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Wording.h"
#include "cli/select/SelectOptions.h"
#include "cli/select/Selecting.h"
#include "cli/show/Explanation.h"
#include "cli/show/ResultPage.h"
#include "cli/show/SelectionOutput.h"
#include "cli/show/SelectionResult.h"
#include "vpn/Api/ProfileMgr.h"
#include "vpn/include/StringUtils.h"

namespace {

// Hosts of the command line replace the profiles. So the name of a host entry becomes a host that
// no name server knows.
void noteEntriesTakenForHosts(const SelectionResult& result, const SelectPlan& plan) {
  std::set<std::string> unknown;
  for (const HeadendResult& headend : result.results) {
    if (headend.outcome == HeadendOutcome::NameNotResolved) {
      unknown.insert(CStringUtils::toLower(headend.headend));
    }
  }
  if (plan.sources.headends.empty() || unknown.empty()) {
    return;
  }
  ProfileMgr profiles;
  if (plan.sources.trustFiles) {
    profiles.trustFiles();
  }
  profiles.loadDirectory(plan.sources.profileDirectory);
  for (const auto& [name, host] : profiles.getHostProfileMap()) {
    if (host != nullptr && !host->getHostAddress().empty() &&
        unknown.contains(CStringUtils::toLower(name))) {
      Console::complain("'" + Console::visible(name) + "' is a host entry of the profiles: name " +
                        "its address, " + host->getHostAddress() +
                        ", or leave the hosts out to select among all entries.");
    }
  }
}

int print(const SelectionResult& result, const SelectOptions& options, const SelectPlan& plan) {
  const std::string text = options.json ? jsonOutput(result)
                           : options.quiet
                               ? quietOutput(result)
                               : textOutput(result) + (options.explain ? explanation(result) : "");
  int exitStatus = Console::writeResult(text, exitStatusOf(result.status));
  if (options.html) {
    exitStatus =
        Console::writeFile(*options.html, pageOf(result, Wording::localTime(true)), exitStatus);
  }
  if (options.svg) {
    exitStatus = Console::writeFile(*options.svg, chartOf(result), exitStatus);
  }
  const std::string advice = adviceFor(result, plan.profilePlaces);
  if (!advice.empty()) {
    Console::complain(advice);
  }
  noteEntriesTakenForHosts(result, plan);
  return exitStatus;
}

void addOutput(CLI::App& command, SelectOptions& options) {
  CLI::Option* const json = command.add_flag("--json", options.json, "Print one JSON object");
  CLI::Option* const quiet =
      command
          .add_flag("--quiet", options.quiet,
                    "Print the first headend and nothing else; nothing when there is none")
          ->excludes(json);
  addOption(command, "--html", "FILE", options.html,
            "Also write the result as a page without external resources");
  addOption(command, "--svg", "FILE", options.svg, "Write the ranking as a picture too, as SVG");
  command
      .add_flag("--explain", options.explain, "Tell why this headend, in numbers, after the result")
      ->excludes(json, quiet);
}

}  // namespace

void addSelectCommand(CLI::App& tool, ChosenCommand& chosen) {
  CLI::App* command = tool.add_subcommand(
      "select", "Measure the headends and print the nearest first, or take them from the cache");
  const auto options = std::make_shared<SelectOptions>();
  addHostOptions(*command, *options);
  addReasonOption(*command, *options);
  addProxyOptions(*command, options->proxy);
  addCacheOptions(*command, *options);
  addOutput(*command, *options);
  addLogOptions(*command, *options);
  command->footer(
      "Examples:\n"
      "  ahs select                                     the headends of the profiles\n"
      "  ahs select gw1.example.com gw2.example.com:8443\n"
      "  ahs select --reason reconnection --last Berlin\n"
      "  ahs select --json --no-cache | jq '.headends[0]'\n"
      "Exit status: 0 selected, 1 nothing could be measured, 2 usage or configuration,\n"
      "3 a proxy asks for a login and was given none or a wrong one,\n"
      "128 + number of the signal that ended it.");
  command->callback([&chosen, options] {
    chosen = [options] {
      return selectOnce(*options, "ahs select",
                        [options](const SelectionResult& result, const SelectPlan& plan) {
                          return print(result, *options, plan);
                        });
    };
  });
}
