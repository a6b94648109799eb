// What may follow on a command line, found in the parser's description. Names of host entries come
// from profiles: one that is not what it looks like is never offered.

#include "cli/completion/Completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>
#include <utility>

#include "cli/CommandTree.h"
#include "cli/Console.h"
#include "cli/files/FileOptions.h"
#include "cli/show/Reasons.h"
#include "vpn/Api/AHS/Candidates.h"
#include "vpn/include/StringUtils.h"

namespace {

// Nobody picks from a longer list by sight; what has been typed makes it shorter.
constexpr std::size_t MostEntries = 1000;

/// A line up to the word that is being typed.
struct Line {
  const CLI::App* command;            ///< that it has come to
  const CLI::Option* open = nullptr;  ///< the option whose value comes next
  bool hasEnded = false;              ///< a "--" has been there
  bool isForHelp = false;
  FileOptions files{};  ///< the profiles that it names
};

void takeValue(Line& line, const CLI::Option& option, const std::string& value) {
  if (option.check_lname("profiles")) {
    const char* const home = value.starts_with("~/") ? getenv("HOME") : nullptr;
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

/// "error|warning|info|off": the words that a placeholder stands for. None if it is no such list.
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

/// What an option takes, or what stands as an operand.
Completion valueOf(const CLI::Option& option, const FileOptions& files) {
  const std::string placeholder = option.get_option_text();
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

}  // namespace

Completion completionOf(const CLI::App& tool, const std::vector<std::string>& before,
                        const std::string& typed) {
  Line line{&tool};
  std::for_each(before.begin() + (before.empty() ? 0 : 1), before.end(),
                [&line](const std::string& word) { take(line, word); });
  Completion completion = allThatFollows(line, typed);
  // A shell has its own idea of what fits to what has been typed, so few are offered whole.
  if (completion.words.size() > MostEntries) {
    const std::string begin = CStringUtils::toLower(typed);
    std::erase_if(completion.words, [&begin](const Completion::Word& word) {
      return !CStringUtils::toLower(word.text).starts_with(begin);
    });
    completion.words.resize(std::min(completion.words.size(), MostEntries));
  }
  return completion;
}
