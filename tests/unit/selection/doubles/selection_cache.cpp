// A selection cache without memory of its own: look-ups end as the test wrote down, stored entries
// are kept for the test to look at, and acquisitions are counted against releases.

#include "tests/unit/selection/doubles/selection_cache.h"

#include <cstddef>
#include <utility>

#include "tests/unit/selection/doubles/gate.h"

namespace doubles {

void CacheScript::reset() {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_creationStatus = 0;
  m_setsPointer = true;
  m_hit.reset();
  m_lookupHook = nullptr;
  m_storeStatus = 0;
  m_acquired = 0;
  m_released = 0;
  m_settingsReads = 0;
  m_lookups.clear();
  m_stored.clear();
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

void CacheScript::failCreation(STATUSCODE status, bool setsPointer) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_creationStatus = status;
  m_setsPointer = setsPointer;
}

void CacheScript::hitWith(const CCacheEntry& entry) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_hit.emplace(entry);
}

void CacheScript::setLookupHook(std::function<void()> hook) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_lookupHook = std::move(hook);
}

void CacheScript::failStore(STATUSCODE status) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_storeStatus = status;
}

int CacheScript::acquired() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_acquired;
}

int CacheScript::released() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_released;
}

int CacheScript::settingsReads() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_settingsReads;
}

std::vector<std::string> CacheScript::lookups() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_lookups;
}

std::vector<CCacheEntry> CacheScript::stored() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_stored;
}

std::size_t CacheScript::storeCount() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_stored.size();
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
  doubles::CacheScript& script = doubles::cache();
  const std::lock_guard<std::mutex> hold(script.m_lock);
  pCache = nullptr;
  if (script.m_creationStatus == 0 || script.m_setsPointer) {
    ++script.m_acquired;
    pCache = instance();
  }
  return script.m_creationStatus;
}

void CSelectionCache::releaseInstance() {
  // First the journal: who waits for the count has then seen everything.
  doubles::journal().add("cache released");
  doubles::CacheScript& script = doubles::cache();
  const std::lock_guard<std::mutex> hold(script.m_lock);
  ++script.m_released;
}

bool CSelectionCache::IsInCache(std::string& key, CCacheEntry& entry) {
  doubles::CacheScript& script = doubles::cache();
  std::function<void()> hook;
  {
    const std::lock_guard<std::mutex> hold(script.m_lock);
    script.m_lookups.push_back(key);
    hook = script.m_lookupHook;
  }
  if (hook) {
    hook();
  }
  const std::lock_guard<std::mutex> hold(script.m_lock);
  if (!script.m_hit) {
    return false;
  }
  entry = *script.m_hit;
  return true;
}

STATUSCODE CSelectionCache::AddEntry(CCacheEntry& entry) {
  doubles::CacheScript& script = doubles::cache();
  const std::lock_guard<std::mutex> hold(script.m_lock);
  script.m_stored.push_back(entry);
  return script.m_storeStatus;
}

void CAHSSettings::GetSettings(HS_SETTINGS& settings) {
  doubles::CacheScript& script = doubles::cache();
  const std::lock_guard<std::mutex> hold(script.m_lock);
  ++script.m_settingsReads;
  settings = script.settings;
}
