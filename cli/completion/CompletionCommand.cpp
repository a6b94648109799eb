// `ahs completion`: prints the script that completes command lines in a shell. The script passes
// the line to the hidden command `ahs completion words`. That reads the parser's description and
// prints what may follow; the script evaluates none of it. Names of host entries come from
// profiles: a misleading name is never offered.

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <sstream>
#include <utility>

#include "cli/AddOption.h"
#include "cli/CommandTree.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/completion/BashLine.h"
#include "cli/files/FileOptions.h"
#include "cli/show/SelectionResult.h"
#include "vpn/Api/AHS/Candidates.h"
#include "vpn/Common/Trust/Environment.h"
#include "vpn/include/StringUtils.h"

namespace {

// Time limit in seconds: the shell stands still meanwhile.
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

// After an unknown command, fish completes file names.
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

/// What may follow at the cursor.
struct Completion {
  struct Word {
    std::string text;
    std::string description{};  ///< a few words; may be empty
  };

  /// "words", or "file", "directory" or "program", which the shell completes itself.
  std::string kind = "words";
  std::vector<Word> words{};  ///< whole words, with the option's name before a value
};

// Nobody picks from a longer list by sight; more typed letters shorten it.
constexpr std::size_t MostEntries = 1000;

/// A line up to the word at the cursor.
struct Line {
  const CLI::App* command;            ///< the command named so far
  const CLI::Option* open = nullptr;  ///< the option whose value comes next
  bool hasEnded = false;              ///< after a "--"
  bool isForHelp = false;
  FileOptions files{};  ///< the profiles that it names
};

void takeValue(Line& line, const CLI::Option& option, const std::string& value) {
  if (option.check_lname("profiles")) {
    const char* const home = value.starts_with("~/") ? Environment::get("HOME") : nullptr;
    line.files.profiles = home != nullptr ? home + value.substr(1) : value;
  }
}

void takeOption(Line& line, const std::string& word) {
  const std::size_t end = word.find('=');
  const CLI::Option* const option = line.command->get_option_no_throw(word.substr(0, end));
  if (option == nullptr) {
    return;
  }
  if (!CommandTree::takesValue(*option)) {
    line.files.trustProfiles |= option->check_lname("trust-profiles");
  } else if (end == std::string::npos) {
    line.open = option;
  } else {
    takeValue(line, *option, word.substr(end + 1));
  }
}

void take(Line& line, const std::string& word) {
  if (line.open != nullptr) {
    takeValue(line, *std::exchange(line.open, nullptr), word);
  } else if (line.hasEnded || word == "--") {
    line.hasEnded = true;
  } else if (word.starts_with("-")) {
    takeOption(line, word);
  } else if (line.command->get_parent() == nullptr && word == "help") {
    line.isForHelp = true;
  } else if (const CLI::App* below = CommandTree::findCommand(*line.command, word)) {
    line.command = below;
  }
}

std::string firstClause(const std::string& description) {
  const std::string clause = description.substr(0, description.find_first_of(";:("));
  return clause.substr(0, clause.find_last_not_of(' ') + 1);
}

Completion wordsOnly(const std::vector<std::string>& texts) {
  Completion completion;
  for (const std::string& text : texts) {
    completion.words.push_back({text});
  }
  return completion;
}

Completion commandsBelow(const CLI::App& command) {
  Completion completion;
  for (const CLI::App* const below : CommandTree::commandsOf(command)) {
    completion.words.push_back({below->get_name(), firstClause(below->get_description())});
  }
  return completion;
}

Completion optionsOf(const CLI::App& command) {
  Completion completion;
  for (const CLI::Option* const option : CommandTree::optionsOf(command)) {
    for (const std::string& name : CommandTree::namesOf(*option)) {
      completion.words.push_back({name, firstClause(option->get_description())});
    }
  }
  return completion;
}

/// The words of a placeholder like "error|warning|info|off"; none if it is no such list.
std::vector<std::string> alternatives(const std::string& placeholder) {
  const auto isOfList = [](char c) { return (c >= 'a' && c <= 'z') || c == '|'; };
  std::vector<std::string> words;
  if (std::all_of(placeholder.begin(), placeholder.end(), isOfList)) {
    std::istringstream list(placeholder);
    for (std::string word; std::getline(list, word, '|');) {
      words.push_back(word);
    }
  }
  return words;
}

Completion hostEntries(const FileOptions& files, std::string Candidate::*part) {
  Completion completion;
  const LoadedFiles loaded(files, "ahs completion");
  if (loaded.areThere()) {
    for (const Candidate& candidate : findCandidates()) {
      const std::string& entry = candidate.*part;
      if (Console::visible(entry) == entry) {
        completion.words.push_back({entry});
      }
    }
  }
  return completion;
}

/// What may be the value of an option, or an operand.
Completion valueOf(const CLI::Option& option, const FileOptions& files) {
  const std::string& placeholder = option.get_option_text();
  const auto names = [&placeholder](const char* kind) {
    return placeholder.find(kind) != std::string::npos;
  };
  if (option.check_lname("reason")) {
    return wordsOnly(reasonNames());
  }
  if (option.check_lname("last") ||
      option.get_description().find("host entry") != std::string::npos) {
    return hostEntries(files, &Candidate::name);
  }
  if (option.get_positional() && names("HOST")) {
    return hostEntries(files, &Candidate::headend);
  }
  return names("FILE")      ? Completion{"file"}
         : names("DIR")     ? Completion{"directory"}
         : names("COMMAND") ? Completion{"program"}
                            : wordsOnly(alternatives(placeholder));
}

Completion operandsOf(const Line& line) {
  if (line.hasEnded && line.command->get_name() == "exec") {
    return {"program"};
  }
  const std::vector<const CLI::Option*> operands = CommandTree::operandsOf(*line.command);
  return operands.empty() ? commandsBelow(*line.command) : valueOf(*operands.front(), line.files);
}

Completion valueBehindName(const Line& line, const std::string& typed) {
  const std::string name = typed.substr(0, typed.find('='));
  const CLI::Option* const option = line.command->get_option_no_throw(name);
  if (option == nullptr || !CommandTree::takesValue(*option)) {
    return {};
  }
  Completion completion = valueOf(*option, line.files);
  for (Completion::Word& word : completion.words) {
    word.text.insert(0, name + "=");
  }
  return completion;
}

Completion allThatFollows(const Line& line, const std::string& typed) {
  if (line.open != nullptr) {
    return valueOf(*line.open, line.files);
  }
  if (line.isForHelp) {
    return commandsBelow(*line.command);
  }
  if (!line.hasEnded && typed.starts_with("-")) {
    return typed.find('=') == std::string::npos ? optionsOf(*line.command)
                                                : valueBehindName(line, typed);
  }
  return operandsOf(line);
}

/// What may follow at the cursor: commands and options from the parser's description, host entries
/// from the profiles that the line names.
/// @param before the words of the line, the tool's name first.
/// @param typed the beginning of the word at the cursor.
Completion completionOf(const CLI::App& tool, const std::vector<std::string>& before,
                        const std::string& typed) {
  Line line{&tool};
  std::for_each(before.begin() + (before.empty() ? 0 : 1), before.end(),
                [&line](const std::string& word) { take(line, word); });
  Completion completion = allThatFollows(line, typed);
  // Shells match in their own ways, so a short list is offered whole.
  if (completion.words.size() > MostEntries) {
    const std::string begin = CStringUtils::toLower(typed);
    std::erase_if(completion.words, [&begin](const Completion::Word& word) {
      return !CStringUtils::toLower(word.text).starts_with(begin);
    });
    completion.words.resize(std::min(completion.words.size(), MostEntries));
  }
  return completion;
}

// @param given after "--": from bash, readline's word breaks and the line; else the words.
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
      ->check(oneOf({"bash", "zsh", "fish"}));
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
