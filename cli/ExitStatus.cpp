// The one list of exit statuses. Help, manual page and documentation show it; a test compares them.

#include "cli/ExitStatus.h"

#include <algorithm>
#include <array>

namespace {

struct Meaning {
  const char* status;
  const char* commands;
  const char* text;
};

constexpr std::array Meanings = {
    Meaning{"0", "select", "a headend was selected, measured now or from the cache"},
    Meaning{"0", "probe", "the headend has a metric for a selection"},
    Meaning{"0", "profile check", "there are no mistakes"},
    Meaning{"0", "all others", "done"},
    Meaning{"1", "select, exec", "nothing could be measured"},
    Meaning{"1", "watch", "the first selection could not be started"},
    Meaning{"1", "probe", "the headend has no metric for a selection"},
    Meaning{"1", "profile check", "there are mistakes"},
    Meaning{"1", "cache show, cache clear", "the cache cannot be used, or not be removed"},
    Meaning{"2", "all", "usage, configuration, or the output could not be written"},
    Meaning{"3", "select, watch, exec",
            "a proxy asks for a login, and none or a wrong one was given"},
    Meaning{"126", "exec", "the program cannot be run"},
    Meaning{"127", "exec", "there is no such program"},
    Meaning{"any", "exec", "that of the program, where one was run"},
    Meaning{"128 + N", "all", "ended by the signal N"},
};

std::string padded(std::string text, std::size_t width) {
  text.resize(std::max(width, text.size()), ' ');
  return text;
}

}  // namespace

std::string exitStatusTable() {
  std::size_t statusWidth = 0;
  std::size_t commandsWidth = 0;
  for (const Meaning& meaning : Meanings) {
    statusWidth = std::max(statusWidth, std::string(meaning.status).size());
    commandsWidth = std::max(commandsWidth, std::string(meaning.commands).size());
  }
  std::string text;
  for (const Meaning& meaning : Meanings) {
    text += "  " + padded(meaning.status, statusWidth) + "  " +
            padded(meaning.commands, commandsWidth) + "  " + meaning.text + "\n";
  }
  return text;
}
