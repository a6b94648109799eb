// A selection cache without memory of its own: look-ups end as the test wrote down, stored entries
// are kept for the test to look at, and acquisitions are counted against releases.

#include "tests/unit/selection/doubles/selection_cache.h"

#include <cstddef>

namespace doubles {

void CacheScript::reset() {
  creationStatus = 0;
  setsPointer = true;
  hit.set({});
  duringLookup.set(nullptr);
  storeStatus = 0;
  acquired = 0;
  released = 0;
  lookups.set({});
  entries.set({});
  settingsReads = 0;
  settings = HS_SETTINGS{.bAHSEnabled = true,
                         .nResumeTime = 4,
                         .nImprovement = 20,
                         .nClearCache = 14,
                         .nConnectTimeout = 10000,
                         .nReconnectTimeout = 5000,
                         .nPingTimeout = 2000,
                         .nPingsPerHeadend = 3,
                         .nTestPingTimeout = 5,
                         .nMaxResults = 100};
}

CacheScript& cache() {
  static CacheScript& instance = *new CacheScript;  // late threads may still use it
  return instance;
}

}  // namespace doubles

namespace {

/// What stands for the one instance. No operation of the double touches a member, so nothing is
/// ever constructed there, and the double does not depend on what a real cache consists of.
CSelectionCache* instance() {
  alignas(CSelectionCache) static std::byte memory[sizeof(CSelectionCache)];
  return reinterpret_cast<CSelectionCache*>(memory);
}

}  // namespace

STATUSCODE CSelectionCache::createSingletonInstance(CSelectionCache*& pCache) {
  const STATUSCODE status = doubles::cache().creationStatus;
  pCache = nullptr;
  if (status == 0 || doubles::cache().setsPointer) {
    ++doubles::cache().acquired;
    pCache = instance();
  }
  return status;
}

void CSelectionCache::releaseInstance() {
  // First the journal: who waits for the count has then seen everything.
  doubles::journal().add("cache released");
  ++doubles::cache().released;
}

bool CSelectionCache::IsInCache(std::string& key, CCacheEntry& entry) {
  doubles::cache().lookups.with([&](auto& all) { all.push_back(key); });
  if (const auto hook = doubles::cache().duringLookup.get()) {
    hook();
  }
  const std::optional<CCacheEntry> hit = doubles::cache().hit.get();
  if (hit) {
    entry = *hit;
  }
  return hit.has_value();
}

STATUSCODE CSelectionCache::AddEntry(CCacheEntry& entry) {
  doubles::cache().entries.with([&](auto& all) { all.push_back(entry); });
  return doubles::cache().storeStatus;
}

void CAHSSettings::GetSettings(HS_SETTINGS& settings) {
  ++doubles::cache().settingsReads;
  settings = doubles::cache().settings;
}
