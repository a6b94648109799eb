// How a program is told its headend. A headend is safe as an argument: the profile's reader lets no
// host begin with a hyphen. A host entry's name may hold anything, so it is in the environment
// alone.

#include "cli/exec/HeadendProgram.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "vpn/Api/AHS/Candidates.h"

namespace {

/// The place that a probe of a headend goes to.
Place placeOfHeadend(const std::string& headend) { return candidateOf("", URL(headend)).place; }

// One pass, so that what has been put in is not looked at again.
std::string replaced(const std::string& text,
                     const std::array<std::pair<std::string_view, std::string>, 3>& values) {
  std::string result;
  for (std::size_t at = 0; at < text.size();) {
    const auto value = std::ranges::find_if(values, [&text, at](const auto& candidate) {
      return std::string_view(text).substr(at).starts_with(candidate.first);
    });
    result += value == values.end() ? text.substr(at, 1) : value->second;
    at += value == values.end() ? 1 : value->first.size();
  }
  return result;
}

}  // namespace

ChosenHeadend chosenHeadend(const std::string& headend, const SelectionResult& result) {
  const HeadendResult* known = find(result, headend);
  return known == nullptr ? ChosenHeadend{headend, "", std::nullopt}
                          : ChosenHeadend{headend, known->name, known->metricMs};
}

ChildProgram::Variables variablesOf(const ChosenHeadend& chosen) {
  const auto [host, port] = placeOfHeadend(chosen.headend);
  return {{"AHS_HEADEND", chosen.headend},
          {"AHS_HOST", host},
          {"AHS_PORT", std::to_string(port)},
          {"AHS_NAME", chosen.name},
          {"AHS_METRIC_MS", chosen.metricMs ? std::to_string(*chosen.metricMs) : ""}};
}

std::vector<std::string> commandFor(const std::vector<std::string>& command,
                                    const ChosenHeadend& chosen) {
  const auto [host, port] = placeOfHeadend(chosen.headend);
  std::vector<std::string> result;
  result.reserve(command.size());
  for (const std::string& argument : command) {
    result.push_back(replaced(
        argument,
        {{{"{headend}", chosen.headend}, {"{host}", host}, {"{port}", std::to_string(port)}}}));
  }
  return result;
}
