#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/unit/selection/doubles/gate.h"
#include "vpn/Api/AHS/SelectionCache.h"

namespace doubles {

/// A selection cache that hits or misses as a test says, and the settings that go with it.
struct CacheScript {
  void reset();

  /// What creation gives; a failing one may hand out the instance all the same.
  std::atomic<STATUSCODE> creationStatus{0};
  std::atomic<bool> setsPointer{true};
  /// Every look-up hits and brings this.
  Guarded<std::optional<CCacheEntry>> hit;
  /// Is called during each look-up.
  Guarded<std::function<void()>> duringLookup;
  std::atomic<STATUSCODE> storeStatus{0};

  std::atomic<int> acquired{0};
  std::atomic<int> released{0};
  Guarded<std::vector<std::string>> lookups;
  std::vector<CCacheEntry> stored() const { return entries.get(); }
  Guarded<std::vector<CCacheEntry>> entries;

  /// What `CAHSSettings::GetSettings` gives. Written by the test before the run.
  HS_SETTINGS settings{};
  std::atomic<int> settingsReads{0};
};

CacheScript& cache();

}  // namespace doubles
