// The script for zsh. zsh quotes what is offered; the script hands over names as data alone.

#include <algorithm>

#include "cli/completion/Completion.h"

namespace {

using Completion::Kind;

std::string between(const std::string& text) {
  return Completion::withoutApostrophes(text, R"('\'')");
}

std::string functionOf(const Completion::Command& command) {
  std::string name = command.path.empty() ? "_ahs" : "_ahs_" + command.path;
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}

std::string actionOf(const Completion::Value& value) {
  switch (value.kind) {
    case Kind::Words: {
      std::string words;
      for (const std::string& word : value.words) {
        words += (words.empty() ? "" : " ") + word;
      }
      return "(" + words + ")";
    }
    case Kind::File:
      return "_files";
    case Kind::Directory:
      return "_files -/";
    case Kind::Name:
      return "_ahs_entries names";
    case Kind::Headend:
      return "_ahs_entries headends";
    case Kind::Program:
      return "_command_names -e";
    case Kind::Other:
    case Kind::Nothing:
      break;
  }
  return " ";
}

std::string optionSpecs(const Completion::Command& command) {
  std::string text;
  for (const Completion::Option& option : command.options) {
    for (const std::string& name : option.names) {
      const bool isLong = name.starts_with("--");
      const bool takesValue = option.value.kind != Kind::Nothing;
      const std::string sign = !takesValue ? "" : isLong ? "=" : "+";
      const std::string value =
          takesValue ? ":" + option.placeholder + ":" + actionOf(option.value) : "";
      const bool isAlone = name == "--help" || name == "-h";
      text += std::string("    '") + (isAlone ? "(- *)" : "") + name + sign + "[" +
              between(option.description) + "]" + value + "' \\\n";
    }
  }
  return text;
}

std::string operandSpec(const Completion::Command& command) {
  return command.operands.kind == Kind::Nothing
             ? "    && return 0\n"
             : "    '*:" + command.placeholder + ":" + actionOf(command.operands) + "'\n";
}

std::string withCommands(const Completion::Command& command) {
  std::string names;
  std::string cases;
  for (const Completion::Command& below : command.commands) {
    names += "    '" + below.name + ":" + between(below.description) + "'\n";
    cases += "        " + below.name + ") " + functionOf(below) + " ;;\n";
  }
  return functionOf(command) +
         "() {\n"
         "  local curcontext=$curcontext state state_descr\n"
         "  local -a line below\n"
         "  typeset -A opt_args\n"
         "  below=(\n" +
         names + "  )\n  _arguments -C \\\n" + optionSpecs(command) +
         "    '1: :->command' \\\n"
         "    '*:: :->behind'\n"
         "  case $state in\n"
         "    command) _describe -t commands command below ;;\n"
         "    behind)\n"
         "      case $line[1] in\n" +
         cases + "      esac\n      ;;\n  esac\n}\n\n";
}

std::string withoutCommands(const Completion::Command& command) {
  constexpr const char* Program =
      "  local -i mark=${words[(i)--]}\n"
      "  if ((mark < CURRENT)); then\n"
      "    shift $mark words\n"
      "    ((CURRENT -= mark))\n"
      "    _normal\n"
      "    return\n"
      "  fi\n";
  return functionOf(command) + "() {\n" + (command.takesProgram ? Program : "") +
         "  _arguments \\\n" + optionSpecs(command) + operandSpec(command) + "}\n\n";
}

constexpr const char* Entries =
    R"sh(# Offers the host entries of the profiles that the line names; _arguments puts compadd's options first.
_ahs_entries() {
  local -a entries options
  local word directory
  integer i
  for ((i = 1; i < CURRENT; ++i)); do
    word=$words[i] directory=
    case $word in
      --trust-profiles) options+=($word) ;;
      --profiles) directory=$words[i+1] ;;
      --profiles=*) directory=${word#*=} ;;
    esac
    if [[ -n $directory ]]; then
      [[ $directory != '~/'* ]] || directory=$HOME/${directory#??}
      options+=("--profiles=${(Q)directory}")
    fi
  done
  word=${(Q)PREFIX}
  [[ -z $word ]] || options+=("--begin=$word")
  entries=("${(@f)$(command ahs completion entries $argv[-1] $options 2>/dev/null </dev/null)}")
  [[ -n $entries[1] ]] && compadd "${(@)argv[1,-2]}" -a entries
}

)sh";

}  // namespace

std::string Completion::zshScript(const Command& tool) {
  std::string text =
      "#compdef ahs\n# Completion of ahs for zsh, written by 'ahs completion zsh'.\n\n";
  for (const Command* const command : flatten(tool)) {
    text += command->commands.empty() ? withoutCommands(*command) : withCommands(*command);
  }
  return text + Entries +
         "if [[ $funcstack[1] == _ahs ]]; then\n  _ahs \"$@\"\nelse\n  compdef _ahs ahs\nfi\n";
}
