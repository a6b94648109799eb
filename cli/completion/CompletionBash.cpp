// The script for bash. bash puts what a completion offers into the line as it is, so the script
// quotes it; and it takes quotes off what was typed by itself, without ever evaluating a word.

#include "cli/Wording.h"
#include "cli/completion/Completion.h"

namespace {

using Completion::Kind;

/// A kind as the script's `_ahs_offer` takes it.
std::string kindOf(const Completion::Value& value) {
  switch (value.kind) {
    case Kind::Words:
      return "words:" + Wording::joined(value.words, " ");
    case Kind::File:
      return "file";
    case Kind::Directory:
      return "directory";
    case Kind::Name:
      return "names";
    case Kind::Headend:
      return "headends";
    case Kind::Program:
      return "program";
    case Kind::Other:
    case Kind::Nothing:
      break;
  }
  return "other";
}

std::string steps(const std::vector<const Completion::Command*>& commands) {
  std::string text;
  for (const Completion::Command* const command : commands) {
    if (!command->path.empty()) {
      const std::string above =
          command->path.substr(0, command->path.size() - command->name.size());
      text +=
          (text.empty() ? "'" : " | '") + above + (above.empty() ? " " : "") + command->name + "'";
    }
  }
  return text;
}

std::string valueCases(const std::vector<const Completion::Command*>& commands) {
  std::string text;
  for (const Completion::Command* const command : commands) {
    for (const Completion::Option& option : command->options) {
      if (option.value.kind != Kind::Nothing) {
        const std::string between = "' | '" + command->path + " ";
        text += "    '" + command->path + " " + Wording::joined(option.names, between) +
                "') _ahs_kind='" + kindOf(option.value) + "' ;;\n";
      }
    }
  }
  return text;
}

std::string optionCases(const std::vector<const Completion::Command*>& commands) {
  std::string text;
  for (const Completion::Command* const command : commands) {
    std::string names;
    for (const Completion::Option& option : command->options) {
      names += (names.empty() ? "" : " ") + Wording::joined(option.names, " ");
    }
    text += "    '" + command->path + "') _ahs_kind='words:" + names + "' ;;\n";
  }
  return text;
}

std::string operandCases(const std::vector<const Completion::Command*>& commands) {
  std::string text;
  for (const Completion::Command* const command : commands) {
    std::vector<std::string> names;
    for (const Completion::Command& below : command->commands) {
      names.push_back(below.name);
    }
    const std::string kind =
        names.empty() ? kindOf(command->operands) : "words:" + Wording::joined(names, " ");
    text += "    '" + command->path +
            (command->takesProgram ? "" : "' | '" + command->path + " --") + "') _ahs_kind='" +
            kind + "' ;;\n";
    if (command->takesProgram) {
      text += "    '" + command->path + " --') _ahs_kind='program' ;;\n";
    }
  }
  return text;
}

constexpr const char* Functions = R"sh(
# Takes the quotes off a word, without evaluating it. Fails for a word that the shell would change,
# and for one that is quoted in part: what is offered could not be put in its place.
_ahs_unquote() {
  local word=$1 quote='' char i
  _ahs_plain='' _ahs_open='' _ahs_before=''
  for ((i = 0; i < ${#word}; ++i)); do
    char=${word:i:1}
    if [[ $quote == "'" ]]; then
      [[ $char != "'" ]] || return 1
      _ahs_plain+=$char
    elif [[ $char == '$' || $char == '`' || $quote$char == '""' ]]; then
      return 1
    elif [[ ! $quote && ( $char == '"' || $char == "'" ) ]]; then
      quote=$char _ahs_before=$_ahs_plain
    elif [[ $char == \\ ]]; then
      ((++i))
      [[ ! $quote || ${word:i:1} == [\"\\\$\`] ]] || _ahs_plain+=\\
      _ahs_plain+=${word:i:1}
    else
      _ahs_plain+=$char
    fi
  done
  _ahs_open=$quote
}

# Offers those of the candidates that begin with what was typed.
_ahs_reply() {
  local candidate kept=$_ahs_kept typed rest
  COMPREPLY=()
  _ahs_unquote "$kept" || return 0
  kept=$_ahs_plain
  _ahs_unquote "$_ahs_typed" || return 0
  typed=$_ahs_plain
  [[ ! $_ahs_open ]] || kept=$_ahs_before
  for candidate in "$@"; do
    [[ $candidate == "$typed"* ]] || continue
    rest=${candidate#"$kept"}
    case $_ahs_open in
      "'") rest=${rest//\'/"'\\''"} ;;
      '"')
        # Between these, nothing takes the meaning from an exclamation mark.
        [[ $rest != *'!'* ]] || continue
        rest=${rest//\\/"\\\\"} rest=${rest//\"/"\\\""} rest=${rest//\$/"\\\$"} rest=${rest//\`/"\\\`"}
        ;;
      *) [[ ! $rest ]] || printf -v rest %q "$rest" ;;
    esac
    COMPREPLY+=("$rest")
  done
}

# The host entries of the profiles that the line names.
_ahs_entries() {
  local entries=() options=() i word
  for ((i = 1; i < ${#_ahs_words[@]}; ++i)); do
    word=${_ahs_words[i]}
    case $word in
      --trust-profiles) options+=("$word") ;;
      --profiles) word=${_ahs_words[i + 1]-} ;;&
      --profiles=*) word=${word#*=} ;;&
      --profiles | --profiles=*)
        [[ $word != '~'/* ]] || word=$HOME/${word#??}
        _ahs_unclosed "$word" || return 0
        options+=("--profiles=$_ahs_plain")
        ;;
    esac
  done
  _ahs_unquote "$_ahs_typed" || return 0
  [[ ! $_ahs_plain ]] || options+=("--begin=$_ahs_plain")
  mapfile -t entries < <(command ahs completion entries "$1" "${options[@]}" 2>/dev/null </dev/null)
  _ahs_reply "${entries[@]}"
}

# The same as _ahs_unquote for a word that is complete, so that its quotes are closed.
_ahs_unclosed() {
  case $1 in
    \"*\") _ahs_unquote "${1%\"}" ;;
    \'*\') _ahs_unquote "${1%\'}" ;;
    *) _ahs_unquote "$1" ;;
  esac
}

# Offers what a kind of value allows. Files are left to the shell, which knows how to quote them.
_ahs_offer() {
  local words programs=()
  case $1 in
    words:*)
      IFS=' ' read -ra words <<<"${1#words:}"
      _ahs_reply "${words[@]}"
      ;;
    names | headends) _ahs_entries "$1" ;;
    file) compopt -o default ;;
    directory) compopt -o dirnames ;;
    program)
      if ((_ahs_operands > 0)); then
        compopt -o default
      elif _ahs_unquote "$_ahs_typed"; then
        mapfile -t programs < <(compgen -c -- "$_ahs_plain" | sort -u)
        _ahs_reply "${programs[@]}"
        ((${#COMPREPLY[@]})) || compopt -o default
      fi
      ;;
  esac
}

# Splits the line up to the cursor into words as the shell will, not as readline does, for which a
# colon or an equals sign ends one.
_ahs_split() {
  local line=${COMP_LINE:0:COMP_POINT} blank word i
  _ahs_words=() _ahs_last=''
  for ((i = 0; i <= COMP_CWORD; ++i)); do
    blank=${line%%[![:space:]]*}
    line=${line#"$blank"}
    word=${COMP_WORDS[i]}
    ((i < COMP_CWORD)) || word=$line
    if ((i > 0)) && [[ ! $blank ]]; then
      _ahs_words[${#_ahs_words[@]} - 1]+=$word
    else
      _ahs_words+=("$word")
    fi
    line=${line#"$word"}
    _ahs_last=$word
  done
  [[ ${_ahs_last//[:=]/} ]] || _ahs_last=''
}

_ahs() {
  local _ahs_words _ahs_last _ahs_plain _ahs_open _ahs_before _ahs_kind='' _ahs_operands=0
  local path='' word previous='' hasEnded='' i
  _ahs_split
  local _ahs_typed=${_ahs_words[-1]}
  for ((i = 1; i + 1 < ${#_ahs_words[@]}; ++i)); do
    word=${_ahs_words[i]}
    if [[ $previous ]]; then
      previous=''
    elif [[ ! $hasEnded && $word == -- ]]; then
      hasEnded=1 _ahs_operands=0
    elif [[ ! $hasEnded && $word == -* ]]; then
      ! _ahs_value "$path $word" || previous=$word
    elif _ahs_step "$path $word"; then
      path=${path:+$path }$word
    else
      _ahs_operands=$((_ahs_operands + 1))
    fi
  done
  COMPREPLY=()
  _ahs_kind=''
  if [[ $previous ]]; then
    _ahs_value "$path $previous"
  elif [[ ! $hasEnded && $_ahs_typed == --*=* ]]; then
    _ahs_value "$path ${_ahs_typed%%=*}" || return 0
    _ahs_typed=${_ahs_typed#*=}
  elif [[ ! $hasEnded && $_ahs_typed == -* ]]; then
    _ahs_option "$path"
  else
    _ahs_operand "$path${hasEnded:+ --}"
  fi
  local _ahs_kept=${_ahs_typed%"$_ahs_last"}
  _ahs_offer "$_ahs_kind"
}

complete -F _ahs ahs
)sh";

}  // namespace

std::string Completion::bashScript(const Command& tool) {
  const std::vector<const Command*> commands = flatten(tool);
  return "# Completion of ahs for bash, written by 'ahs completion bash'.\n\n"
         "# Whether a word behind a command is a command below it.\n"
         "_ahs_step() {\n  case $1 in\n    " +
         steps(commands) +
         ") return 0 ;;\n  esac\n  return 1\n}\n\n"
         "# What an option of a command takes; fails if it takes nothing.\n"
         "_ahs_value() {\n  case $1 in\n" +
         valueCases(commands) +
         "    *) return 1 ;;\n  esac\n}\n\n"
         "# The options of a command.\n"
         "_ahs_option() {\n  case $1 in\n" +
         optionCases(commands) +
         "  esac\n}\n\n"
         "# The operands of a command.\n"
         "_ahs_operand() {\n  case $1 in\n" +
         operandCases(commands) + "  esac\n}\n" + Functions;
}
