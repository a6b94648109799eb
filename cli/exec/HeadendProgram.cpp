// Tells a program its headend. A headend is safe as an argument: profiles allow no host that begins
// with a hyphen. A host entry's name may hold anything, so only the environment has it.

#include "cli/exec/HeadendProgram.h"

#include "vpn/Api/AHS/Candidates.h"

namespace {

/// Host and port that probes of a headend connect to.
Place placeOfHeadend(const std::string& headend) { return candidateOf("", URL(headend)).place; }

/// The address that was measured, if it is known; else the host.
std::string addressOf(const HeadendResult& chosen, const std::string& host) {
  const HttpProbe::Report* const probe = nearestProbe(chosen);
  return probe != nullptr && !probe->address.empty() ? probe->address : host;
}

void replaceAll(std::string& text, const std::string& name, const std::string& value) {
  for (std::size_t at = text.find(name); at != std::string::npos; at = text.find(name, at)) {
    text.replace(at, name.size(), value);
    at += value.size();
  }
}

}  // namespace

HeadendResult chosenHeadend(const std::string& headend, const SelectionResult& result) {
  if (const HeadendResult* known = find(result, headend); known != nullptr) {
    return *known;
  }
  HeadendResult unknown;
  unknown.headend = headend;
  return unknown;
}

ChildProgram::Variables variablesOf(const HeadendResult& chosen) {
  const auto [host, port] = placeOfHeadend(chosen.headend);
  return {{"AHS_HEADEND", chosen.headend},
          {"AHS_HOST", host},
          {"AHS_ADDRESS", addressOf(chosen, host)},
          {"AHS_PORT", std::to_string(port)},
          {"AHS_NAME", chosen.name},
          {"AHS_METRIC_MS", chosen.metricMs ? std::to_string(*chosen.metricMs) : ""}};
}

std::vector<std::string> commandFor(const std::vector<std::string>& command,
                                    const HeadendResult& chosen) {
  const auto [host, port] = placeOfHeadend(chosen.headend);
  std::vector<std::string> result = command;
  for (std::string& argument : result) {
    replaceAll(argument, "{headend}", chosen.headend);
    replaceAll(argument, "{host}", host);
    replaceAll(argument, "{address}", addressOf(chosen, host));
    replaceAll(argument, "{port}", std::to_string(port));
  }
  return result;
}
