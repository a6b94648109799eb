// `ahs completion`: prints the script that completes command lines in a shell. The script hands the
// line to the hidden command `ahs completion words`, which says what may follow, and offers that
// without evaluating any of it.

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <optional>

#include "cli/AddOption.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/completion/BashLine.h"
#include "cli/completion/Completion.h"

namespace {

// A shell stands still meanwhile. In seconds.
constexpr unsigned int Patience = 2;

constexpr const char* BashScript = R"sh(# Completion of ahs for bash, which asks the command itself.
_ahs() {
  local kind
  COMPREPLY=()
  { read -r kind && mapfile -t COMPREPLY; } < <(
    command ahs completion words --line -- "$COMP_WORDBREAKS" "${COMP_LINE:0:COMP_POINT}" 2>/dev/null </dev/null)
  case $kind in
    directory) compopt -o dirnames ;;
    file) compopt -o default ;;
    program)
      compopt -o default
      [[ $3 != --* ]] || mapfile -t COMPREPLY < <(compgen -c -- "$2" | sort -u)
      ;;
  esac
}
complete -F _ahs ahs
)sh";

constexpr const char* ZshScript = R"sh(#compdef ahs
# Completion of ahs for zsh, which asks the command itself.
_ahs() {
  local -a answer offered shown
  integer mark=${words[(i)--]}
  answer=("${(@f)$(command ahs completion words -- "${(@Q)words[1,CURRENT-1]}" "${(Q)PREFIX}" 2>/dev/null </dev/null)}")
  [[ $answer[1] == words || $PREFIX != --*=* ]] || compset -P '*='
  case $answer[1] in
    words)
      shift answer
      offered=("${(@)answer%%$'\t'*}") shown=("${(@)answer/$'\t'/  -- }")
      compadd -d shown -a offered
      ;;
    directory) _files -/ ;;
    file) _files ;;
    program)
      if ((mark < CURRENT)); then
        shift $mark words
        ((CURRENT -= mark))
        _normal
      else
        _command_names -e
      fi
      ;;
  esac
}
if [[ $funcstack[1] == _ahs ]]; then
  _ahs "$@"
else
  compdef _ahs ahs
fi
)sh";

// What stands behind a command that there is not is completed as names of files.
constexpr const char* FishScript = R"sh(# Completion of ahs for fish, which asks the command itself.
function __ahs
    set -l typed (commandline -ct)
    set -l answer (command ahs completion words -- (commandline -opc) "$typed" 2>/dev/null </dev/null)
    switch "$answer[1]"
        case words
            string join \n -- $answer[2..]
        case directory
            complete -C "'' $typed" | string match -r '.*/$'
        case file
            complete -C "'' $typed"
        case program
            if contains -- -- (commandline -opc)
                complete -C (string replace -r '^.*? -- ' '' -- (commandline -cp))
            else
                complete -C $typed
            end
    end
end
complete -c ahs -f -a '(__ahs)'
)sh";

// Of bash, what stands after "--" are readline's word breaks and the line; of the others, the
// words.
int printWords(const CLI::App& tool, std::vector<std::string> given, bool isLine) {
  static_cast<void>(alarm(Patience));
  given.resize(std::max<std::size_t>(given.size(), 2));
  const std::string last = given.back();
  const BashLine line(isLine ? last : "", given.front());
  given.pop_back();
  const Completion completion =
      isLine ? completionOf(tool, line.before(), line.typed()) : completionOf(tool, given, last);
  std::string text = completion.kind + "\n";
  for (const Completion::Word& word : completion.words) {
    const std::string whole = word.text + (word.description.empty() ? "" : "\t" + word.description);
    if (const std::optional<std::string> offered = isLine ? line.restOf(word.text) : whole) {
      text += *offered + "\n";
    }
  }
  return Console::writeResult(text, ExitNoMistakes);
}

int printScript(const std::string& shell) {
  return Console::writeResult(shell == "bash"  ? BashScript
                              : shell == "zsh" ? ZshScript
                                               : FishScript,
                              ExitNoMistakes);
}

void addWords(CLI::App& completion, ChosenCommand& chosen, const CLI::App& tool,
              const std::vector<std::string>& given) {
  CLI::App* const words = completion.add_subcommand("words", "For the scripts: what may follow");
  words->group("");
  const auto isLine = std::make_shared<bool>(false);
  words->add_flag("--line", *isLine, "After -- stand bash's word breaks and the line");
  words->callback(
      [&, isLine] { chosen = [&, isLine] { return printWords(tool, given, *isLine); }; });
}

}  // namespace

void addCompletionCommand(CLI::App& tool, ChosenCommand& chosen,
                          const std::vector<std::string>& words) {
  CLI::App* const command =
      tool.add_subcommand("completion", "Print a script that completes command lines in a shell");
  const auto shell = std::make_shared<std::string>();
  addOption(*command, "SHELL", "bash|zsh|fish", *shell, "Shell that the script is for")
      ->check(CLI::IsMember({"bash", "zsh", "fish"}));
  addWords(*command, chosen, tool, words);
  command->footer(
      "Examples:\n"
      "  source <(ahs completion bash)\n"
      "  ahs completion zsh > ~/.zfunc/_ahs             with ~/.zfunc in fpath\n"
      "  ahs completion fish > ~/.config/fish/completions/ahs.fish\n"
      "Installed with the command, they are found without.\n"
      "Exit status: 0 printed, 2 usage.");
  command->callback([&chosen, command, shell] {
    if (!command->get_subcommands().empty()) {
      return;
    }
    if (shell->empty()) {
      throw CLI::RequiredError("SHELL");
    }
    chosen = [shell] { return printScript(*shell); };
  });
}
