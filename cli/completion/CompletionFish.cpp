// The script for fish. fish quotes what is offered, a line each; the script evaluates none of it.

#include "cli/Wording.h"
#include "cli/completion/Completion.h"

namespace {

using Completion::Kind;

std::string between(const std::string& text) {
  return Completion::withoutApostrophes(text, R"(\')");
}

/// The arguments of `complete` for what stands there.
std::string valueArguments(const Completion::Value& value) {
  switch (value.kind) {
    case Kind::Words:
      return " -x -a '" + Wording::joined(value.words, " ") + "'";
    case Kind::File:
      return " -r -F";
    case Kind::Directory:
      return " -x -a '(__fish_complete_directories (commandline -ct))'";
    case Kind::Name:
      return " -x -a '(__ahs_entries names)'";
    case Kind::Headend:
      return " -x -a '(__ahs_entries headends)'";
    case Kind::Program:
      return " -r -F -a '(__fish_complete_command)'";
    case Kind::Other:
      return " -x";
    case Kind::Nothing:
      break;
  }
  return "";
}

std::string at(const Completion::Command& command) {
  return "complete -c ahs -n '__ahs_at \"" + command.path + "\"'";
}

std::string optionLines(const Completion::Command& command) {
  std::string text;
  for (const Completion::Option& option : command.options) {
    text += at(command);
    for (const std::string& name : option.names) {
      text += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
    }
    text += valueArguments(option.value) + " -d '" + between(option.description) + "'\n";
  }
  return text;
}

std::string linesOf(const Completion::Command& command) {
  std::string text;
  for (const Completion::Command& below : command.commands) {
    text += at(command) + " -a " + below.name + " -d '" + between(below.description) + "'\n";
  }
  if (command.commands.empty() && command.operands.kind != Kind::Nothing &&
      command.operands.kind != Kind::Other) {
    text += at(command) + valueArguments(command.operands) + "\n";
  }
  if (command.takesProgram) {
    text += "complete -c ahs -n '__ahs_at \"" + command.path +
            " --\"' -F -a '(__fish_complete_command)'\n";
  }
  return text + optionLines(command) + "\n";
}

std::string steps(const std::vector<const Completion::Command*>& commands) {
  std::string text;
  for (const Completion::Command* const command : commands) {
    if (!command->path.empty()) {
      const std::string above =
          command->path.substr(0, command->path.size() - command->name.size());
      text += " '" + (above.empty() ? " " : above) + command->name + "'";
    }
  }
  return text;
}

constexpr const char* Begin = R"sh(# Completion of ahs for fish, written by 'ahs completion fish'.

# Whether the command that the line has come to is this one; "--" is behind it once a program's line begins.
function __ahs_at
    set -l path ''
    set -l words (commandline -opc)
    for word in $words[2..]
        if test "$word" = --
            set path "$path --"
            break
        end
        switch "$path $word"
            case)sh";

constexpr const char* Functions = R"sh(
                set path (string trim -- "$path $word")
        end
    end
    test "$path" = "$argv[1]"
end

# The host entries of the profiles that the line names.
function __ahs_entries
    set -l options
    set -l isNext 0
    for word in (commandline -opc)
        set -l directory
        if test $isNext = 1
            set directory $word
            set isNext 0
        else if test "$word" = --profiles
            set isNext 1
        else if string match -q -- '--profiles=*' $word
            set directory (string sub -s 12 -- $word)
        else if test "$word" = --trust-profiles
            set -a options $word
        end
        if string match -q -- '~/*' "$directory"
            set directory $HOME(string sub -s 2 -- $directory)
        end
        test -z "$directory"; or set -a options --profiles=$directory
    end
    set -l typed (commandline -ct | string replace -r '^--[a-z-]+=' '')
    test -z "$typed"; or set -a options --begin=$typed
    command ahs completion entries $argv[1] $options 2>/dev/null </dev/null
end

complete -c ahs -f

)sh";

}  // namespace

std::string Completion::fishScript(const Command& tool) {
  const std::vector<const Command*> commands = flatten(tool);
  std::string text = Begin + steps(commands) + Functions;
  for (const Command* const command : commands) {
    text += linesOf(*command);
  }
  return text;
}
