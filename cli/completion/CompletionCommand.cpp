// `ahs completion`: prints the script that completes command lines in a shell, and for these
// scripts the host entries of the profiles. Names come from profiles: one that is not what it looks
// like is never offered, and a shell that waits for them does not wait for long.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/completion/Completion.h"
#include "cli/files/FileOptions.h"
#include "vpn/Api/AHS/Candidates.h"
#include "vpn/include/StringUtils.h"

namespace {

// Nobody picks from a longer list by sight; what has been typed makes it shorter.
constexpr std::size_t MostEntries = 1000;

// A shell stands still meanwhile. In seconds.
constexpr unsigned int Patience = 2;

int printScript(const CLI::App& tool, const std::string& shell) {
  const Completion::Command described = Completion::describe(tool);
  const std::string script = shell == "bash"  ? Completion::bashScript(described)
                             : shell == "zsh" ? Completion::zshScript(described)
                                              : Completion::fishScript(described);
  return Console::writeResult(script, ExitNoMistakes);
}

struct EntryOptions {
  FileOptions files;
  std::string kind;
  std::string begin;
};

int printEntries(const EntryOptions& options) {
  static_cast<void>(alarm(Patience));
  const LoadedFiles files(options.files, "ahs completion entries");
  if (!files.areThere()) {
    return ExitUsage;
  }
  std::string text;
  std::size_t count = 0;
  const std::vector<Candidate> candidates = findCandidates();
  // A shell has its own idea of what fits to what has been typed, so few are offered whole.
  const std::string begin =
      candidates.size() > MostEntries ? CStringUtils::toLower(options.begin) : "";
  for (const Candidate& candidate : candidates) {
    const std::string& entry = options.kind == "headends" ? candidate.headend : candidate.name;
    if (count < MostEntries && CStringUtils::toLower(entry).starts_with(begin) &&
        Console::visible(entry) == entry) {
      text += entry + "\n";
      ++count;
    }
  }
  return Console::writeResult(text, ExitNoMistakes);
}

void addEntries(CLI::App& command, ChosenCommand& chosen) {
  CLI::App* const entries =
      command.add_subcommand("entries", "For the scripts: print host entries");
  entries->group("");
  const auto options = std::make_shared<EntryOptions>();
  entries->add_option("KIND", options->kind)
      ->required()
      ->check(CLI::IsMember({"names", "headends"}));
  entries->add_option("--begin", options->begin, "How they begin");
  entries->add_option("--profiles", options->files.profiles, "Directory of the profiles");
  entries->add_flag("--trust-profiles", options->files.trustProfiles, "Whoever wrote them");
  entries->callback([&chosen, options] { chosen = [options] { return printEntries(*options); }; });
}

}  // namespace

void addCompletionCommand(CLI::App& tool, ChosenCommand& chosen) {
  CLI::App* const command =
      tool.add_subcommand("completion", "Print a script that completes command lines in a shell");
  const auto shell = std::make_shared<std::string>();
  command->add_option("SHELL", *shell, "Shell that the script is for")
      ->option_text("bash|zsh|fish")
      ->check(CLI::IsMember({"bash", "zsh", "fish"}));
  addEntries(*command, chosen);
  command->footer(
      "Examples:\n"
      "  source <(ahs completion bash)\n"
      "  ahs completion zsh > ~/.zfunc/_ahs             with ~/.zfunc in fpath\n"
      "  ahs completion fish > ~/.config/fish/completions/ahs.fish\n"
      "Installed with the command, they are found without.\n"
      "Exit status: 0 printed, 2 usage.");
  command->callback([&chosen, &tool, command, shell] {
    if (!command->get_subcommands().empty()) {
      return;
    }
    if (shell->empty()) {
      throw CLI::RequiredError("SHELL");
    }
    chosen = [&tool, shell] { return printScript(tool, *shell); };
  });
}
