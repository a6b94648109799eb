// A result as C sees it. Vectors own everything, so that it can be moved without copying; a short
// std::string would move its characters, so the realm is none.

#include "capi/Result.h"

#include <algorithm>
#include <type_traits>
#include <utility>

#include "vpn/Api/AHS/SelectionRules.h"

namespace {

static_assert(std::is_same_v<uint32_t, unsigned int>, "samples are handed out as they are stored");

const char* const nothing = "";

/// The address that answered, else the last one that was connected to.
std::string addressOf(const HeadendResult& headend) {
  std::string address;
  for (const HttpProbe::Report& probe : headend.probes) {
    if (!probe.address.empty() && (address.empty() || !SelectionRules::isSample(probe.status))) {
      address = probe.address;
    }
    if (SelectionRules::isSample(probe.status) && !probe.address.empty()) {
      return probe.address;
    }
  }
  return address;
}

}  // namespace

Result::Result(ahs_status status, uint32_t reason) noexcept {
  m_result.size = sizeof m_result;
  m_result.status = status;
  m_result.reason = reason;
  m_result.proxy_realm = nothing;
  m_result.cache_age_s = -1;
}

Result::Result(ahs_status status, uint32_t reason, std::vector<std::string> headends,
               const std::string& realm, std::vector<HeadendResult> candidates)
    : Result(status, reason) {
  m_headends = std::move(headends);
  for (const std::string& headend : m_headends) {
    m_headendPointers.push_back(headend.c_str());
  }
  m_result.headends = m_headendPointers.data();
  m_result.headend_count = m_headendPointers.size();
  m_realm.assign(realm.c_str(), realm.c_str() + realm.size() + 1);
  m_result.proxy_realm = m_realm.data();
  m_found = std::move(candidates);
  std::ranges::transform(m_found, std::back_inserter(m_addresses), addressOf);
  for (std::size_t i = 0; i < m_found.size(); ++i) {
    const HeadendResult& found = m_found[i];
    m_candidates.push_back({sizeof(ahs_candidate), found.name.c_str(), found.headend.c_str(),
                            m_addresses[i].c_str(), found.metricMs.value_or(AHS_NO_METRIC),
                            outcomeNumber(found.outcome), found.samplesMs.data(),
                            found.samplesMs.size()});
  }
  for (const ahs_candidate& candidate : m_candidates) {
    m_candidatePointers.push_back(&candidate);
  }
  m_result.candidates = m_candidatePointers.data();
  m_result.candidate_count = m_candidatePointers.size();
}

Result::~Result() = default;

void Result::setFromCache(int64_t seconds) {
  m_result.from_cache = 1;
  m_result.cache_age_s = seconds;
}

uint32_t outcomeNumber(HeadendOutcome outcome) {
  static_assert(static_cast<uint32_t>(HeadendOutcome::NotInCache) == AHS_OUTCOME_NOT_IN_CACHE);
  return static_cast<uint32_t>(outcome);
}
