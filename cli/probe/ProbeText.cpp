// Small pieces that the text and the JSON of `ahs probe` are made of.

#include "cli/probe/ProbeText.h"

#include <algorithm>
#include <sstream>

#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/ConfigurationText.h"
#include "vpn/include/HttpSession.h"

namespace {

constexpr std::size_t MostLines = 20;
constexpr std::size_t MostLineBytes = 200;

}  // namespace

std::string candidateWithPort(const ProbePlan& plan) {
  auto [host, port] = plan.place;
  const bool isIPv6 = host.find(':') != std::string::npos;
  if (const std::size_t zoneAt = host.find('%'); isIPv6 && zoneAt != std::string::npos) {
    host.insert(zoneAt + 1, "25");  // as it is typed
  }
  return (isIPv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::vector<std::string> headLines(const std::string& head) {
  std::vector<std::string> lines;
  std::istringstream stream(head);
  for (std::string line; lines.size() < MostLines && std::getline(stream, line);) {
    if (line.ends_with('\r')) {
      line.pop_back();
    }
    if (line.empty()) {
      break;
    }
    lines.push_back(ConfigurationText::oneLine(line, MostLineBytes));
  }
  return lines;
}

std::string probeStatusName(STATUSCODE status) {
  // 0 is every module's success; a probe's is this one.
  return status == HTTP_SESSION_SUCCESS ? "HTTP_SESSION_SUCCESS" : statusCodeName(status);
}

unsigned int lossPercent(std::size_t sent, std::size_t samples) {
  constexpr unsigned int Hundred = 100;
  if (sent == 0 || samples == sent) {
    return 0;
  }
  const auto rounded = static_cast<unsigned int>(((sent - samples) * Hundred + sent / 2) / sent);
  return samples == 0 ? Hundred : std::clamp(rounded, 1U, Hundred - 1);
}
