// Writes commands, options and exit statuses into a page, from the parser's description.
// Usage: ahs-describe ahs.1.in > ahs.1
//          Replaces a line "@options ahs probe@" by the command's options, "@exit-statuses@" by
//          the table.
//        ahs-describe cli.md > cli.md.new
//          Replaces the lines after "<!-- options -->" and "<!-- exit statuses -->", up to the next
//          empty line, by the options of all commands and by the table.

#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "cli/CommandTree.h"
#include "cli/Commands.h"
#include "cli/ExitStatus.h"

namespace {

std::string replaced(std::string text, const std::string& what, const std::string& by) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
    text.replace(at, what.size(), by);
  }
  return text;
}

std::vector<const CLI::Option*> describedOf(const CLI::App& command) {
  std::vector<const CLI::Option*> all = CommandTree::operandsOf(command);
  for (const CLI::Option* const option : CommandTree::optionsOf(command)) {
    if (!option->check_lname("help")) {
      all.push_back(option);
    }
  }
  return all;
}

std::string inMdoc(const CLI::Option& option) {
  std::string names;
  for (const std::string& name : CommandTree::namesOf(option)) {
    names += (names.empty() ? " Fl " : " , Fl ") + name.substr(1);
  }
  const std::string placeholder = option.get_option_text();
  return ".It" + names + (placeholder.empty() ? "" : " Ar " + placeholder) + "\n" +
         replaced(option.get_description(), "\\", "\\e") + ".\n";
}

std::string optionsInMdoc(const CLI::App& tool, const std::string& path) {
  const CLI::App* command = &tool;
  std::istringstream words(path);
  for (std::string word; words >> word && command != nullptr;) {
    command = word == tool.get_name() ? &tool : CommandTree::findCommand(*command, word);
  }
  if (command == nullptr) {
    throw std::runtime_error("there is no command '" + path + "'");
  }
  std::string text = ".Bl -tag -width Ds\n";
  for (const CLI::Option* const option : describedOf(*command)) {
    text += inMdoc(*option);
  }
  return text + ".El\n";
}

std::string statusesInMdoc() {
  std::string text;
  for (const StatusMeaning& meaning : StatusMeanings) {
    text += std::string(".It ") + meaning.status + " Ta " + meaning.commands + " Ta " +
            meaning.text + "\n";
  }
  return text;
}

using Cells = std::map<std::string, std::string>;

std::string inMarkdown(const CLI::Option& option) {
  std::string names;
  for (const std::string& name : CommandTree::namesOf(option)) {
    names += (names.empty() ? "`" : "`, `") + name;
  }
  const std::string placeholder = replaced(option.get_option_text(), "|", "\\|");
  names += names.empty() ? "`" + placeholder : placeholder.empty() ? "" : " " + placeholder;
  return "| " + names + "` | " + replaced(option.get_description(), "|", "\\|") + " | ";
}

void collect(const CLI::App& command, std::vector<std::string>& order, Cells& commandsOfRow) {
  const std::string full = CommandTree::fullName(command);
  const std::string name = full.substr(std::min(full.find(' ') + 1, full.size()));
  for (const CLI::Option* const option : describedOf(command)) {
    const std::string row = inMarkdown(*option);
    std::string& commands = commandsOfRow[row];
    if (commands.empty()) {
      order.push_back(row);
    }
    commands += (commands.empty() ? "" : ", ") + name;
  }
  for (const CLI::App* const below : CommandTree::commandsOf(command)) {
    collect(*below, order, commandsOfRow);
  }
}

std::string optionsInMarkdown(const CLI::App& tool) {
  std::vector<std::string> order;
  Cells commandsOfRow;
  for (const CLI::App* const command : CommandTree::commandsOf(tool)) {
    collect(*command, order, commandsOfRow);
  }
  std::string text = "| option | meaning | commands |\n|---|---|---|\n";
  for (const std::string& row : order) {
    text += row + commandsOfRow[row] + " |\n";
  }
  return text;
}

std::string statusesInMarkdown() {
  std::string text = "| status | commands | meaning |\n|---|---|---|\n";
  for (const StatusMeaning& meaning : StatusMeanings) {
    text += std::string("| ") + meaning.status + " | " + meaning.commands + " | " + meaning.text +
            " |\n";
  }
  return text;
}

void describe(const CLI::App& tool, std::istream& page) {
  const std::string begin = "@options ";
  bool isOld = false;
  for (std::string line; std::getline(page, line);) {
    isOld = isOld && !line.empty();
    if (line.starts_with(begin)) {
      std::cout << optionsInMdoc(tool, line.substr(begin.size(), line.size() - begin.size() - 1));
    } else if (line == "@exit-statuses@") {
      std::cout << statusesInMdoc();
    } else if (!isOld) {
      std::cout << line << "\n";
    }
    if (line == "<!-- options -->" || line == "<!-- exit statuses -->") {
      std::cout << (line == "<!-- options -->" ? optionsInMarkdown(tool) : statusesInMarkdown());
      isOld = true;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::ifstream page(argc == 2 ? argv[1] : "");
  if (!page) {
    std::cerr << "Usage: ahs-describe PAGE\n";
    return 2;
  }
  try {
    CLI::App tool("", "ahs");
    ChosenCommand unused;
    const std::vector<std::string> nothing;
    addCommands(tool, unused, nothing);
    describe(tool, page);
  } catch (const std::exception& error) {
    std::cerr << "ahs-describe: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
