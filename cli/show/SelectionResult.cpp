// What is told of a selection as a whole.

#include "cli/show/SelectionResult.h"

#include <algorithm>

#include "cli/ExitStatus.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"

const HeadendResult* find(const SelectionResult& result, const std::string& headend) {
  const auto found = std::ranges::find(result.results, headend, &HeadendResult::headend);
  return found == result.results.end() ? nullptr : &*found;
}

bool hasNames(const SelectionResult& result) {
  return std::ranges::any_of(result.results, [](const HeadendResult& headend) {
    return !nameBeside(headend.headend, headend.name).empty();
  });
}

std::string titleOf(const HeadendResult& headend) {
  const std::string name = nameBeside(headend.headend, headend.name);
  return headend.headend + (name.empty() ? "" : " (" + name + ")");
}

std::string samplesText(const std::vector<unsigned int>& samplesMs, const char* separator) {
  std::string text;
  for (const unsigned int sample : samplesMs) {
    text += (text.empty() ? "" : separator) + std::to_string(sample);
  }
  return text;
}

int exitStatusOf(STATUSCODE status) {
  switch (status) {
    case HEADENDSELECTION_SUCCESS:
    case HEADENDSELECTION_ERROR_ADDED_TO_CACHE:
      return ExitSelected;
    case HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED:
      return ExitProxyAsks;
    case HEADENDSELECTION_ERROR_NO_HEADENDS:
      return ExitUsage;
    default:
      return ExitNotMeasured;
  }
}
