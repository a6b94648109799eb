// Reads the parser's description of the tool, so that no other code repeats it.

#include "cli/CommandTree.h"

#include <CLI/CLI.hpp>

std::vector<const CLI::App*> CommandTree::commandsOf(const CLI::App& command) {
  return command.get_subcommands([](const CLI::App* below) {
    return !below->get_group().empty() && !below->get_name().empty();
  });
}

const CLI::App* CommandTree::findCommand(const CLI::App& command, const std::string& name) {
  for (const CLI::App* const below : commandsOf(command)) {
    if (below->get_name() == name) {
      return below;
    }
  }
  return nullptr;
}

std::string CommandTree::fullName(const CLI::App& command) {
  std::string name = command.get_name();
  for (const CLI::App* above = command.get_parent(); above != nullptr;
       above = above->get_parent()) {
    name.insert(0, above->get_name() + " ");
  }
  return name;
}

std::vector<const CLI::Option*> CommandTree::optionsOf(const CLI::App& command) {
  return command.get_options([](const CLI::Option* option) {
    return option->nonpositional() && !option->get_group().empty();
  });
}

std::vector<const CLI::Option*> CommandTree::operandsOf(const CLI::App& command) {
  return command.get_options([](const CLI::Option* option) {
    return option->get_positional() && !option->get_group().empty();
  });
}

std::vector<std::string> CommandTree::namesOf(const CLI::Option& option) {
  std::vector<std::string> names;
  for (const std::string& name : option.get_snames()) {
    names.push_back("-" + name);
  }
  for (const std::string& name : option.get_lnames()) {
    names.push_back("--" + name);
  }
  return names;
}

bool CommandTree::takesValue(const CLI::Option& option) { return option.get_items_expected() > 0; }

std::string CommandTree::helpOf(const CLI::App& command) {
  return command.get_formatter()->make_help(&command, fullName(command),
                                            CLI::AppFormatMode::Normal);
}
