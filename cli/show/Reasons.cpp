// The names of the reasons on the command line: their words, joined by hyphens.

#include "cli/show/Reasons.h"

#include <algorithm>

std::optional<unsigned int> parseReason(const std::string& text) {
  for (unsigned int reason = 0; reason < SelectionRules::ReasonCount; ++reason) {
    if (text == reasonName(reason) || text == std::to_string(reason)) {
      return reason;
    }
  }
  return std::nullopt;
}

std::string reasonName(unsigned int reason) {
  std::string name = SelectionRules::reasonText(reason);
  std::ranges::replace(name, ' ', '-');
  return name;
}

std::vector<std::string> reasonNames() {
  std::vector<std::string> names;
  for (unsigned int reason = 0; reason < SelectionRules::ReasonCount; ++reason) {
    names.push_back(reasonName(reason));
  }
  return names;
}
