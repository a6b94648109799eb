#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <vector>

#include "tests/unit/selection/doubles/gate.h"
#include "vpn/Common/Utility/Thread.h"
#include "vpn/include/Locks.h"

class CCacheEntry;

namespace doubles {

/// Hooks in front of real operations. The linker sends calls of the component through them
/// (--wrap), so that the real threads and locks can be watched and made to fail.
struct Seams {
  template <class Signature>
  using Hook = Guarded<std::function<Signature>>;
  enum class Reading { List, Copy };

  void reset();

  /// A value that the hook gives is `Start`'s result, and no thread is started.
  Hook<std::optional<STATUSCODE>(CThread&)> beforeStart;
  Hook<void(CThread&)> afterStart;
  Hook<void(CThread&, unsigned int timeoutMs)> beforeWait;
  /// What the hook gives is the wait's result.
  Hook<STATUSCODE(CThread&, STATUSCODE result, unsigned int& exitCode, unsigned int timeoutMs)>
      afterWait;
  /// Is called when an owner is about to give a thread up.
  Hook<void(CThread&)> beforeDelete;
  /// Is called when a lock was taken (true), and when it is about to be given back (false).
  Hook<void(const CManualLock*, bool taken)> onLock;
  /// Is called when an entry's results are about to be handed out as a list, or to be copied into
  /// another entry.
  Hook<void(const CCacheEntry&, Reading)> beforeReading;
  /// With a failure GetHeadendList gives it, and leaves the list alone unless it `fillsList`.
  std::atomic<STATUSCODE> listStatus{0};
  std::atomic<bool> fillsList{false};

  /// Number of successful or failed `Start` calls.
  std::atomic<int> starts{0};
  /// The constructor arguments of all locks and threads made since the reset.
  Guarded<std::vector<unsigned long>> lockArguments;
  Guarded<std::vector<unsigned long>> threadArguments;
};

Seams& seams();

}  // namespace doubles
