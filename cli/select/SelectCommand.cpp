// `ahs select`: one selection, from options to exit status. Standard output gets only the result.

#include <memory>
#include <optional>
#include <string>

#include "cli/AddOption.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Wording.h"
#include "cli/select/SelectOptions.h"
#include "cli/select/Selecting.h"
#include "cli/show/ResultPage.h"
#include "cli/show/SelectionOutput.h"
#include "cli/show/SelectionResult.h"
#include "cli/show/SelectionTable.h"

namespace {

/// A page or a picture: its file, or standard output in place of the text.
struct Drawing {
  std::optional<std::string> given;
  FileTrust::Place place;

  bool isText() const { return given == "-"; }
  std::string findError() {
    return given && !isText() ? Console::findFile(*given, place) : std::string();
  }
  int write(const std::string& text, int exitStatus) const {
    return isText() ? Console::writeResult(text, exitStatus)
                    : Console::writeFile(place, text, exitStatus);
  }
};

struct Drawings {
  Drawing page;
  Drawing picture;
};

std::string textOf(const SelectionResult& result, const SelectOptions& options) {
  return options.csv     ? separatedOutput(result, ',')
         : options.tsv   ? separatedOutput(result, '\t')
         : options.json  ? jsonOutput(result)
         : options.quiet ? quietOutput(result)
                         : textOutput(result, options.explain);
}

int print(const SelectionResult& result, const SelectOptions& options, const Drawings& drawings,
          const SelectPlan& plan) {
  int exitStatus = exitStatusOf(result);
  if (!drawings.page.isText() && !drawings.picture.isText()) {
    exitStatus = Console::writeResult(textOf(result, options), exitStatus);
  }
  if (drawings.page.given) {
    exitStatus = drawings.page.write(pageOf(result, Wording::localTime(true)), exitStatus);
  }
  if (drawings.picture.given) {
    exitStatus = drawings.picture.write(chartOf(result), exitStatus);
  }
  const std::string advice = adviceFor(result, plan.profilePlaces);
  if (!advice.empty()) {
    Console::complain(advice);
  }
  return exitStatus;
}

int runSelect(const SelectOptions& options) {
  const std::string command = "ahs select";
  Drawings drawings;
  drawings.page.given = options.html;
  drawings.picture.given = options.svg;
  const bool isTwice = drawings.page.isText() && drawings.picture.isText();
  const bool isDrawn = drawings.page.isText() || drawings.picture.isText();
  std::string error;
  if (isTwice || (isDrawn && (options.json || options.quiet || options.explain || options.csv ||
                              options.tsv))) {
    error =
        "standard output takes one form of the result: '-' excludes --json, --csv, --tsv, --quiet, "
        "--explain and a second '-'.";
  }
  for (Drawing* const drawing : {&drawings.page, &drawings.picture}) {
    error = error.empty() ? drawing->findError() : error;
  }
  if (!error.empty()) {
    return Console::complainOfUsage(command, error);
  }
  return selectOnce(options, command,
                    [&](const SelectionResult& result, const SelectPlan& plan, const Selecting&) {
                      return print(result, options, drawings, plan);
                    });
}

void addOutput(CLI::App& command, SelectOptions& options) {
  CLI::Option* const json = command.add_flag("--json", options.json, "Print one JSON object");
  CLI::Option* const quiet =
      command
          .add_flag("--quiet", options.quiet,
                    "Print the first headend alone, as soon as it is decided; where nothing was "
                    "measured, that of --last or nothing")
          ->excludes(json);
  CLI::Option* const csv =
      command.add_flag("--csv", options.csv, "Print all headends as comma-separated values")
          ->excludes(json, quiet);
  CLI::Option* const tsv =
      command.add_flag("--tsv", options.tsv, "Print all headends as tab-separated values")
          ->excludes(json, quiet, csv);
  addOption(command, "--html", "FILE", options.html,
            "Also write the result as a self-contained page; - writes it in place of the text");
  addOption(command, "--svg", "FILE", options.svg,
            "Also write the ranking as SVG; - writes it in place of the text");
  command
      .add_flag("--explain", options.explain, "Tell why this headend, in numbers, after the result")
      ->excludes(json, quiet, csv, tsv);
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
      "Exit status: 0 selected, 1 nothing could be measured, or not the headends,\n"
      "2 usage or configuration, 3 a proxy asks for a login and was given none or a wrong one,\n"
      "128 + number of the signal that ended it.");
  command->callback([&chosen, options] {
    options->untilDecided = options->quiet && !options->html && !options->svg;
    chosen = [options] { return runSelect(*options); };
  });
}
