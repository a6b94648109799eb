// What a completion has to know, taken from the parser's description. Nothing that comes out of
// here can mean anything to a shell but itself: descriptions are brought down to plain text, and
// the names of host entries, which strangers choose, are no part of a script.

#include "cli/completion/Completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "cli/CommandTree.h"
#include "cli/show/Reasons.h"

namespace {

using Completion::Kind;
using Completion::Value;

bool isPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == ' ' ||
         c == '-' || c == ',' || c == '.' || c == '\'';
}

/// The first clause of a description.
std::string plainText(const std::string& text) {
  std::string plain;
  for (const char c : text.substr(0, text.find_first_of(";:("))) {
    if (isPlain(c)) {
      plain += c;
    }
  }
  plain.erase(plain.find_last_not_of(' ') + 1);
  return plain;
}

/// "error|warning|info|off": the words that a placeholder stands for. None if it is no such list.
std::vector<std::string> wordsOf(const std::string& placeholder) {
  const bool isList = placeholder.find('|') != std::string::npos &&
                      std::all_of(placeholder.begin(), placeholder.end(), [](char c) {
                        return (c >= 'a' && c <= 'z') || c == '-' || c == '|';
                      });
  std::vector<std::string> words;
  for (std::size_t begin = 0; isList && begin <= placeholder.size();) {
    const std::size_t end = std::min(placeholder.find('|', begin), placeholder.size());
    words.push_back(placeholder.substr(begin, end - begin));
    begin = end + 1;
  }
  return words;
}

std::vector<std::string> reasons() {
  std::vector<std::string> names;
  for (unsigned int reason = 0; parseReason(std::to_string(reason)); ++reason) {
    names.emplace_back(reasonName(reason));
  }
  return names;
}

bool contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

Value valueOf(const CLI::Option& option) {
  const std::string placeholder = CommandTree::placeholderOf(option);
  if (!option.get_positional() && !CommandTree::takesValue(option)) {
    return {Kind::Nothing, {}};
  }
  if (option.check_lname("last") ||
      (option.get_positional() && contains(option.get_description(), "host entry"))) {
    return {Kind::Name, {}};
  }
  if (option.check_lname("reason")) {
    return {Kind::Words, reasons()};
  }
  if (const std::vector<std::string> words = wordsOf(placeholder); !words.empty()) {
    return {Kind::Words, words};
  }
  return {contains(placeholder, "FILE")                              ? Kind::File
          : contains(placeholder, "DIR")                             ? Kind::Directory
          : contains(placeholder, "COMMAND")                         ? Kind::Program
          : option.get_positional() && contains(placeholder, "HOST") ? Kind::Headend
                                                                     : Kind::Other,
          {}};
}

std::string pathOf(const CLI::App& command) {
  const std::string name = CommandTree::fullName(command);
  const std::size_t blank = name.find(' ');
  return blank == std::string::npos ? "" : name.substr(blank + 1);
}

void addTo(Completion::Command& described, const CLI::App& command) {
  for (const CLI::Option* const option : CommandTree::optionsOf(command)) {
    described.options.push_back({CommandTree::namesOf(*option),
                                 plainText(option->get_description()),
                                 plainText(CommandTree::placeholderOf(*option)), valueOf(*option)});
  }
  for (const CLI::Option* const operand : CommandTree::operandsOf(command)) {
    described.operands = valueOf(*operand);
    described.placeholder = plainText(operand->get_name(true, false));
  }
  for (const CLI::App* const below : CommandTree::commandsOf(command)) {
    described.commands.push_back(Completion::describe(*below));
  }
}

/// `ahs help` takes the words of a command, which are known.
void addHelpsWords(Completion::Command& tool) {
  Value words{Kind::Words, {}};
  for (const Completion::Command* const command : Completion::flatten(tool)) {
    if (!command->name.empty() && command->path == command->name) {
      words.words.push_back(command->name);
    }
  }
  for (Completion::Command& command : tool.commands) {
    if (command.name == "help") {
      command.operands = words;
    }
  }
}

}  // namespace

Completion::Command Completion::describe(const CLI::App& command) {
  Command described;
  described.path = pathOf(command);
  described.name = command.get_name();
  described.description = plainText(command.get_description());
  described.takesProgram = described.path == "exec";
  addTo(described, command);
  if (command.get_parent() == nullptr) {
    addHelpsWords(described);
  }
  return described;
}

std::vector<const Completion::Command*> Completion::flatten(const Command& command) {
  std::vector<const Command*> all = {&command};
  for (const Command& below : command.commands) {
    const std::vector<const Command*> more = flatten(below);
    all.insert(all.end(), more.begin(), more.end());
  }
  return all;
}

std::string Completion::withoutApostrophes(const std::string& text,
                                           const std::string& replacement) {
  std::string result;
  for (const char c : text) {
    result += c == '\'' ? replacement : std::string(1, c);
  }
  return result;
}
