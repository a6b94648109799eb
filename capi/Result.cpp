// A result as C sees it. Vectors own everything, so that a move leaves pointers valid; moving a
// short std::string would move its characters, so the realm is a vector too.

#include "capi/Result.h"

#include <type_traits>
#include <utility>

#include "vpn/Api/AHS/SelectionRules.h"

namespace {

static_assert(std::is_same_v<uint32_t, unsigned int>, "samples are handed out as they are stored");
static_assert(static_cast<uint32_t>(HeadendOutcome::LackOfMemory) == AHS_OUTCOME_LACK_OF_MEMORY);

const char* const Nothing = "";

/// The address that answered, else the last one that was connected to.
const char* addressOf(const HeadendResult& headend) {
  const char* address = Nothing;
  for (const HttpProbe::Report& probe : headend.probes) {
    if (!probe.address.empty()) {
      address = probe.address.c_str();
      if (SelectionRules::isSample(probe.status)) {
        break;
      }
    }
  }
  return address;
}

}  // namespace

Result::Result(ahs_status status, uint32_t reason) noexcept {
  value.size = sizeof value;
  value.status = status;
  value.reason = reason;
  value.proxy_realm = Nothing;
  value.cache_age_s = -1;
}

Result::Result(ahs_status status, uint32_t reason, std::vector<std::string> headends,
               const std::string& realm, std::vector<HeadendResult> candidates)
    : Result(status, reason) {
  m_headends = std::move(headends);
  for (const std::string& headend : m_headends) {
    m_headendPointers.push_back(headend.c_str());
  }
  value.headends = m_headendPointers.data();
  value.headend_count = m_headendPointers.size();
  m_realm.assign(realm.c_str(), realm.c_str() + realm.size() + 1);
  value.proxy_realm = m_realm.data();
  m_found = std::move(candidates);
  for (const HeadendResult& found : m_found) {
    m_candidates.push_back({sizeof(ahs_candidate), found.name.c_str(), found.headend.c_str(),
                            addressOf(found), found.metricMs.value_or(AHS_NO_METRIC),
                            static_cast<uint32_t>(found.outcome), found.samplesMs.data(),
                            found.samplesMs.size()});
  }
  for (const ahs_candidate& candidate : m_candidates) {
    m_candidatePointers.push_back(&candidate);
  }
  value.candidates = m_candidatePointers.data();
  value.candidate_count = m_candidatePointers.size();
}
