#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vpn/Api/AHS/SelectionCache.h"

namespace doubles {

/// A selection cache that hits or misses as a test says, and the settings that go with it.
class CacheScript {
 public:
  void reset();

  /// Creation gives `status`; with `setsPointer` it hands out the instance all the same.
  void failCreation(STATUSCODE status, bool setsPointer);
  /// Every look-up hits and brings `entry`.
  void hitWith(const CCacheEntry& entry);
  /// Is called during each look-up.
  void setLookupHook(std::function<void()> hook);
  void failStore(STATUSCODE status);

  int acquired() const;
  int released() const;
  std::vector<std::string> lookups() const;
  std::vector<CCacheEntry> stored() const;
  std::size_t storeCount() const;

  /// What `CAHSSettings::GetSettings` gives.
  HS_SETTINGS settings{};
  int settingsReads() const;

 private:
  friend class ::CSelectionCache;
  friend class ::CAHSSettings;

  mutable std::mutex m_lock;
  STATUSCODE m_creationStatus = 0;
  bool m_setsPointer = true;
  std::optional<CCacheEntry> m_hit;
  std::function<void()> m_lookupHook;
  STATUSCODE m_storeStatus = 0;
  int m_acquired = 0;
  int m_released = 0;
  int m_settingsReads = 0;
  std::vector<std::string> m_lookups;
  std::vector<CCacheEntry> m_stored;
};

CacheScript& cache();

}  // namespace doubles
