// Turns typed options into a plan for probing one headend. Finds a person's mistakes before
// anything is sent.

#include "cli/probe/ProbeOptions.h"

#include <algorithm>

#include "cli/Wording.h"
#include "vpn/Common/IP/ProbeSettings.h"
#include "vpn/Common/Utility/URL.h"
#include "vpn/include/StringUtils.h"

namespace {

constexpr unsigned int MillisecondsPerSecond = 1000;

const HostEntry* findEntry(const std::string& name, const std::vector<HostEntry>& entries) {
  const std::string wanted = CStringUtils::toLower(name);
  const auto found = std::ranges::find_if(entries, [&wanted](const HostEntry& entry) {
    return CStringUtils::toLower(entry.name) == wanted;
  });
  return found == entries.end() ? nullptr : &*found;
}

std::string takeHost(const std::string& host, const std::vector<HostEntry>& entries,
                     ProbePlan& plan) {
  const HostEntry* entry = findEntry(host, entries);
  const std::string address = entry == nullptr ? Wording::asHost(host) : entry->address;
  if (std::string error = Wording::hostError(address); !error.empty()) {
    return error;
  }
  const Candidate candidate = candidateOf(host, URL(address));
  plan.headend = candidate.headend;
  plan.place = candidate.place;
  if (entry != nullptr) {
    plan.entry = entry->name;
    plan.profile = entry->profile;
    plan.leftOut = entry->takesPart ? "" : entry->reason;
  }
  return "";
}

}  // namespace

std::string makeProbePlan(const ProbeOptions& options, const std::vector<HostEntry>& entries,
                          const HS_SETTINGS& settings, ProbePlan& plan) {
  plan.secure = options.secure;
  plan.interval = std::chrono::seconds(options.intervalSeconds);
  plan.selectionCount = settings.nPingsPerHeadend;
  plan.selectionLimit = std::chrono::milliseconds(settings.nConnectTimeout);
  plan.count = options.count.value_or(settings.nPingsPerHeadend);
  // Rounds down to whole seconds, like a worker; at least one second.
  const unsigned int timeout = std::max(settings.nPingTimeout / MillisecondsPerSecond, 1U);
  plan.selectionTimeout = std::chrono::seconds(timeout);
  plan.timeout = std::chrono::seconds(options.timeoutSeconds.value_or(timeout));
  std::string error = plan.way->take(options);
  if (error.empty()) {
    error = takeHost(options.host, entries, plan);
    plan.how = ProbeSettings::howTo(plan.place.first, plan.place.second);
  }
  return error;
}
